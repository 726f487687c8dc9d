#!/bin/sh
# calvarine-db as an administrator meets it: help, mistakes on the command line,
# databases that exist or not, and imports that contradict themselves.
# usage: calvarine-db.sh PATH/TO/calvarine-db
set -u
tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data"
failures=0

# expect STATUS PATTERN COMMAND...: the command exits with STATUS and its
# output (stdout and stderr) matches the extended regular expression PATTERN;
# has PATTERN...: that same output matches each of these too.
expect() {
    want=$1 pattern=$2
    shift 2
    command="$*"
    "$@" >"$work/out" 2>&1
    got=$?
    [ "$got" -eq "$want" ] || failed "exit $got, wanted $want"
    has "$pattern"
}
has() {
    for pattern in "$@"; do
        grep -Eq -- "$pattern" "$work/out" || failed "no /$pattern/"
    done
}
failed() {
    echo "FAILED: $command ($1)"
    sed 's/^/    /' "$work/out"
    failures=$((failures + 1))
}

# Help and mistakes.
expect 0 '^usage: calvarine-db' "$tool" --help
has 'check +report every inconsistency'
expect 0 'lenient' "$tool" help import
expect 0 'usage: calvarine-db .*check' "$tool" check --help
expect 2 'unknown command "frobnicate"' "$tool" frobnicate
expect 2 'unknown option --verbose' "$tool" --verbose export
expect 2 'unknown option --fast for import' "$tool" --db "$work/x.db" import --fast a.jsonl
expect 2 'no command "nope" to explain' "$tool" help nope
expect 2 'no command given' "$tool"
expect 2 '--statements takes a whole number from 0 to [0-9]+, not "-1"' "$tool" --db "$work/d.db" demo --statements -1
[ ! -e "$work/d.db" ] || { echo "FAILED: a refused demo made $work/d.db"; failures=$((failures + 1)); }

# Databases are opened, never made as a side effect.
expect 1 "$work/none/new.db: no such folder $work/none \\(calvarine-db create" "$tool" --db "$work/none/new.db" export DROITS
expect 1 "$work/new.db: no such database file" "$tool" --db "$work/new.db" select 'SSELECT DROITS'
[ ! -e "$work/none" ] && [ ! -e "$work/new.db" ] || { echo "FAILED: opening made a database"; failures=$((failures + 1)); }
expect 1 'a folder, not a database' "$tool" --db "$work" check
: >"$work/empty.db"
expect 1 'an empty file, not a database' "$tool" --db "$work/empty.db" import "$work/empty.db"

# create, then import: the report per file, refusals with file:line.
db="$work/a.db"
expect 0 'empty database made' "$tool" --db "$db" create
expect 1 "$db exists already\. create makes a new database" "$tool" --db "$db" create
# The refusal names the file and both ways on.
expect 1 "$db exists already\. demo .*give another path with --db, or remove $db .*run demo again" "$tool" --db "$db" demo --statements 5
cat >"$work/orgs.jsonl" <<'JSONL'
{"file": "ASSOCIATION", "key": "001", "record": ["AIDE A DOMICILE"]}
{"file": "ORGPRISECHARGE", "key": "012", "record": ["CAISSE", "CPAM"]}
{"dict": "ARCHIVEBORDCAISSE", "name": "PeriodeArchive", "attr": 1}
JSONL
cat >"$work/bad.jsonl" <<'JSONL'
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F1        ", "record": ["202611", "CPAM", "F1"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F2        ", "record": ["202610", "CPAM", "F2"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F3        ", "record": ["202611", "CPAM", "F4"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P077202611F5        ", "record": ["202611", "X", "F5"]}
{"file": "ORGPRISECHARGE", "key": "013"}
JSONL
expect 1 'import refused, 4 problems; nothing imported' "$tool" --db "$db" import "$work/orgs.jsonl" "$work/bad.jsonl"
has 'bad.jsonl:2: .*period 202611 .*"202610"' 'bad.jsonl:3: .*invoice "F3" .*"F4"' \
    'bad.jsonl:4: organisation 077 .*no record in ORGPRISECHARGE' 'bad.jsonl:5: ORGPRISECHARGE "013" has no record'
if [ -n "$("$tool" --db "$db" select 'SSELECT ASSOCIATION' 2>&1)" ]; then
    echo "FAILED: a refused import left records"; failures=$((failures + 1))
fi
expect 1 'cannot import .*name its .jsonl files' "$tool" --db "$db" import "$work"
expect 0 'orgs.jsonl: 2 records \(ASSOCIATION 1, ORGPRISECHARGE 1\), 1 dictionary name' "$tool" --db "$db" import "$work/orgs.jsonl"
expect 0 'warning: .*bad.jsonl:4: organisation 077' "$tool" --db "$db" import --lenient "$work/bad.jsonl"
expect 0 '001P077202611F5' "$tool" --db "$db" select 'SSELECT ARCHIVEBORDCAISSE'

# check: every inconsistency that the lenient import let in, counted.
expect 1 'check: 7 records, 4 problems' "$tool" --db "$db" check
has 'ARCHIVEBORDCAISSE "001P077202611F5        ": organisation 077'
good="$work/good.db"
"$tool" --db "$good" create >/dev/null 2>&1
"$tool" --db "$good" import "$work/orgs.jsonl" >/dev/null 2>&1
expect 0 'check: 2 records, 0 problems' "$tool" --db "$good" check

[ "$failures" -eq 0 ] && echo "calvarine-db: all checks passed"
exit "$failures"
