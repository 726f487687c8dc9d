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

# Help and mistakes, in French.
expect 0 '^usage : calvarine-db' "$tool" --help
has 'check +signale chaque erreur'
expect 0 'lenient' "$tool" help import
expect 0 'usage : calvarine-db .*check' "$tool" check --help
expect 2 'commande inconnue : « frobnicate »' "$tool" frobnicate
expect 2 'option inconnue : --verbose' "$tool" --verbose export
expect 2 "option inconnue d'import : --fast" "$tool" --db "$work/x.db" import --fast a.jsonl
expect 2 'pas de commande « nope » à expliquer' "$tool" help nope
expect 2 'help explique une commande à la fois ; « --x » est de trop' "$tool" help import --x
grep -q 'pas de commande « import »' "$work/out" && failed 'says there is no command import'
expect 2 'aucune commande donnée' "$tool"
expect 2 '--statements prend un nombre entier de 0 à [0-9]+, pas « -1 »' "$tool" --db "$work/d.db" demo --statements -1
[ ! -e "$work/d.db" ] || { echo "FAILED: a refused demo made $work/d.db"; failures=$((failures + 1)); }

# Databases are opened, never made as a side effect; a mistyped folder neither.
expect 1 "$work/none/new.db : le dossier $work/none n'existe pas \\(calvarine-db create" "$tool" --db "$work/none/new.db" export DROITS
expect 1 "$work/new.db : ce fichier de base n'existe pas" "$tool" --db "$work/new.db" select 'SSELECT DROITS'
expect 1 "le dossier $work/none/deeper n'existe pas : create ne crée pas de dossier" "$tool" --db "$work/none/deeper/new.db" create
expect 1 "le dossier $work/none n'existe pas : demo ne crée pas de dossier" "$tool" --db "$work/none/new.db" demo --statements 5
[ ! -e "$work/none" ] && [ ! -e "$work/new.db" ] || { echo "FAILED: opening made a database"; failures=$((failures + 1)); }
expect 1 "c'est un dossier, pas un fichier de base" "$tool" --db "$work" check
: >"$work/empty.db"
expect 1 "c'est un fichier vide, pas une base" "$tool" --db "$work/empty.db" import "$work/empty.db"

# create, then import: the report per file, refusals with file:line in line order.
db="$work/a.db"
expect 0 'base vide créée' "$tool" --db "$db" create
expect 1 "$db existe déjà\. create crée une base neuve" "$tool" --db "$db" create
# The refusal names the file and both ways on.
expect 1 "$db existe déjà\. demo .*donnez un autre chemin avec --db, ou supprimez $db .*relancez demo" "$tool" --db "$db" demo --statements 5
expect 1 "fichier inexistant dans la base" "$tool" --db "$db" select 'SSELECT NOPE'
expect 1 "export : la base n'a pas de fichier NOPE \(ses fichiers : ACTIVITES, " "$tool" --db "$db" export NOPE
grep -q 'no such' "$work/out" && failed 'English left'
cat >"$work/orgs.jsonl" <<'JSONL'
{"file": "ASSOCIATION", "key": "001", "record": ["AIDE A DOMICILE"]}
{"file": "ORGPRISECHARGE", "key": "012", "record": ["CAISSE", "CPAM"]}
{"dict": "ARCHIVEBORDCAISSE", "name": "PeriodeArchive", "attr": 1}
JSONL
cat >"$work/bad.jsonl" <<'JSONL'
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F1        ", "record": ["202611", "CPAM", "F1"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F2        ", "record": ["202610", "CPAM", "F2"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F3        ", "record": ["202611", "CPAM", "F4"]}
{"file": "ARCHIVEBORDCAISSE", "key": "009P077202611F5        ", "record": ["202611", "X", "F5"]}
{"file": "ORGPRISECHARGE", "key": "013"}
{"file": "ARCHIVEBORDCAISSE", "key": "001P078202611F6        ", "record": ["202611", "Y", "F6"]}
JSONL
expect 1 "import refusé, 4 erreurs ; rien n'est importé \(--lenient" "$tool" --db "$db" import "$work/orgs.jsonl" "$work/bad.jsonl"
has 'bad.jsonl:2 : .*période 202611 .*"202610"' 'bad.jsonl:3 : .*facture "F3" .*"F4"' \
    "bad.jsonl:4 : l'entité 009 du bordereau .*n'a pas de fiche dans ASSOCIATION" 'bad.jsonl:5 : la fiche "013" de ORGPRISECHARGE est vide'
# An organisation without a record is no error, and not listed among them.
grep -q "l'organisme 07" "$work/out" && failed 'an organisation without a record listed as an error'
if [ -n "$("$tool" --db "$db" select 'SSELECT ASSOCIATION' 2>&1)" ]; then
    echo "FAILED: a refused import left records"; failures=$((failures + 1))
fi
# Lines that are not JSON or not fixtures: French, with file:line, in line order.
cat >"$work/broken.jsonl" <<'JSONL'
{"file": "ASSOCIATION", "key": "001", "record": ["AIDE"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P012202611F1        ", "record": ["202610", "CPAM", "F1"]}
{"file": "ASSOCIATION", "key": "002", "record": ["B"
{"file": "ASSOCIATION", "key": "003", "recrd": ["C"]}
{"file": "ASSOCIATION", "key": "004", "record": ["D"]} x
JSONL
expect 1 "import refusé, 4 erreurs ; rien n'est importé$" "$tool" --db "$db" import --lenient "$work/broken.jsonl"
if ! grep -n 'broken.jsonl' "$work/out" | sed 's/ : .*//' | tr '\n' ' ' | grep -q '^1:[^ ]*broken.jsonl:2 2:[^ ]*broken.jsonl:3 3:[^ ]*broken.jsonl:4 4:[^ ]*broken.jsonl:5 $'; then
    failed 'not in line order'
fi
has "broken.jsonl:3 : ce n'est pas du JSON valable : la ligne s'arrête avant la fin" 'broken.jsonl:4 : champ "recrd" inconnu' \
    "broken.jsonl:5 : ce n'est pas du JSON valable : caractère inattendu en colonne 56 \(« x »\)"
grep -q 'json.exception\|parse error' "$work/out" && failed "the library's own message"
expect 1 'est un dossier : nommez ses fichiers .jsonl' "$tool" --db "$db" import "$work"
expect 1 "impossible de lire $work/nothing.jsonl : ce fichier n'existe pas" "$tool" --db "$db" import "$work/nothing.jsonl"
expect 0 'entrée standard : 2 fiches \(ASSOCIATION 1, ORGPRISECHARGE 1\), 1 nom de dictionnaire' sh -c "\"$tool\" --db \"$db\" import - <\"$work/orgs.jsonl\""
expect 0 "avertissement : .*bad.jsonl:4 : l'entité 009" "$tool" --db "$db" import --lenient "$work/bad.jsonl"
has "avis : .*bad.jsonl:4 : l'organisme 077 n'a pas de fiche" "avis : .*bad.jsonl:6 : l'organisme 078 n'a pas de fiche"
expect 0 '009P077202611F5' "$tool" --db "$db" select 'SSELECT ARCHIVEBORDCAISSE'

# check: every error that the lenient import let in, counted; organisations
# without a record are notices, which leave the exit status 0.
expect 1 'check : 8 fiches, 4 erreurs, 2 avis' "$tool" --db "$db" check
has "erreur : ARCHIVEBORDCAISSE \"009P077202611F5        \" : l'entité 009" "avis : ARCHIVEBORDCAISSE \"009P077202611F5        \" : l'organisme 077"
good="$work/good.db"
"$tool" --db "$good" create >/dev/null 2>&1
"$tool" --db "$good" import "$work/orgs.jsonl" >/dev/null 2>&1
expect 0 'check : 2 fiches, 0 erreur, 0 avis' "$tool" --db "$good" check

# The demo checks clean (its organisations without a record are notices) and
# goes through export and import as it is, without --lenient.
demo="$work/demo.db"
expect 0 'base de démonstration créée' "$tool" --db "$demo" demo --statements 400 --seed 7
expect 0 'check : [0-9]+ fiches, 0 erreur, [1-9] avis' "$tool" --db "$demo" check
"$tool" --db "$demo" export >"$work/demo.jsonl"
# What statements name is written before them: an import meets no reference early.
first_statement=$(grep -n '"file":"ARCHIVEBORDCAISSE","key"' "$work/demo.jsonl" | head -1 | cut -d: -f1)
last_party=$(grep -n '"file":"\(ASSOCIATION\|ORGPRISECHARGE\)","key"' "$work/demo.jsonl" | tail -1 | cut -d: -f1)
[ -n "$first_statement" ] && [ -n "$last_party" ] && [ "$last_party" -lt "$first_statement" ] || {
    echo "FAILED: the export writes statements before the entities and organisations"; failures=$((failures + 1)); }
copy="$work/copy.db"
"$tool" --db "$copy" create >/dev/null 2>&1
expect 0 'entrée standard : [0-9]+ fiches \(ACTIVITES' sh -c "\"$tool\" --db \"$copy\" import - <\"$work/demo.jsonl\""
"$tool" --db "$copy" export >"$work/copy.jsonl"
cmp -s "$work/demo.jsonl" "$work/copy.jsonl" || { echo "FAILED: the demo changed through export and import"; failures=$((failures + 1)); }

# The journal of re-issues: read with its filters and formats, purged by the
# administrator, the purge itself journaled.
jdb="$work/journal.db"
"$tool" --db "$jdb" create >/dev/null 2>&1
cat >"$work/journal.jsonl" <<'JSONL'
{"file": "JOURNALREEDITIONS", "key": "2026-11-20T09:00:00.000001Z.poste-2.00000002", "record": ["2026-11-20T09:00:00Z", "BERNARD", "poste-2", "001", "202611", "P", "FILES", "", "", "", "", "", "/srv/FUSION", "001P_202611_012_F3.pdf", "012", "F3", "REFUSED", "le disque du dossier FUSION est plein, \"vraiment\"", ""]}
{"file": "JOURNALREEDITIONS", "key": "2026-11-18T09:00:00.000001Z.poste-1.00000001", "record": ["2026-11-18T09:00:00Z", "ALICE", "poste-1", "001", "202611", "P", "PAPER", "accueil", "2", "1", "41", "completed", "", "", ["012", "013"], ["F1", "F2"], "DONE", "", "cups.example:631"]}
JSONL
"$tool" --db "$jdb" import "$work/journal.jsonl" >/dev/null 2>&1
expect 0 '^2026-11-18T09:00:00Z  ALICE@poste-1  001P 202611  papier  faite  2 bordereaux' "$tool" --db "$jdb" journal
has 'imprimante accueil, 2 exemplaires, recto-verso, travail n° 41 : terminé' 'bordereaux : 012 F1, 013 F2' \
    'BERNARD@poste-2  001P 202611  fichiers  refusée' 'dossier /srv/FUSION : 001P_202611_012_F3.pdf' 'motif : le disque'
expect 0 'BERNARD' "$tool" --db "$jdb" journal --since 2026-11-19
grep -q ALICE "$work/out" && failed 'an entry before --since'
expect 0 '^horodatage,utilisateur,poste' "$tool" --db "$jdb" journal --format csv --invoice F3
has '"le disque du dossier FUSION est plein, ""vraiment"""' ',012,F3,refusée,'
grep -q ALICE "$work/out" && failed 'an entry without the invoice asked'
expect 0 '"invoice":"F2"' "$tool" --db "$jdb" journal --format jsonl --organisation 013 --user ALICE
has '"job":41' '"job_state":"completed"'
expect 2 '--since prend une date AAAA-MM-JJ, pas « 2026-13-01 »' "$tool" --db "$jdb" journal --since 2026-13-01
expect 2 '--format prend text, csv ou jsonl, pas « xml »' "$tool" --db "$jdb" journal --format xml
expect 2 'option inconnue de journal : --all' "$tool" --db "$jdb" journal --all
expect 0 'journal : 1 entrée antérieure au 2026-11-19 supprimée' "$tool" --db "$jdb" journal --purge-before 2026-11-19
expect 0 'purge du journal : 1 entrée antérieure au 2026-11-19 supprimée' "$tool" --db "$jdb" journal
grep -q ALICE "$work/out" && failed 'a purged entry'
expect 0 'JOURNALREEDITIONS.*2026-11-20T09' "$tool" --db "$jdb" export JOURNALREEDITIONS

[ "$failures" -eq 0 ] && echo "calvarine-db: all checks passed"
exit "$failures"
