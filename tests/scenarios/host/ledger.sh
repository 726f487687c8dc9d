#!/bin/sh
# The list of files that calvarine-script keeps in a FUSION folder names plain
# files of that folder only: a list naming anything else (another folder's
# file, an absolute path, a subfolder, a link) refuses the folder, and nothing
# is removed, inside or outside it.
#   ledger.sh CALVARINE-SCRIPT WORK-DIR SCENARIO
set -u
script=$1 work=$2 scenario=$3
status=0
for entry in ../victim "$work/victim" sub link .; do
    rm -rf "$work" && mkdir -p "$work/fusion" || exit 1
    echo keep > "$work/victim"
    case $entry in
        sub) mkdir "$work/fusion/sub" && echo keep > "$work/fusion/sub/inside" ;;
        link) ln -s ../victim "$work/fusion/link" ;;
    esac
    printf '%s\n' "$entry" > "$work/fusion/.calvarine-script"
    out=$("$script" --fusion "$work/fusion" "$scenario" 2>&1)
    rc=$?
    if [ "$rc" -ne 2 ]; then
        echo "list naming '$entry': exit status $rc, expected 2: $out"; status=1
    fi
    if ! echo "$out" | grep -q 'give an empty or a new folder'; then
        echo "list naming '$entry': not refused: $out"; status=1
    fi
    if [ ! -f "$work/victim" ] || { [ "$entry" = sub ] && [ ! -f "$work/fusion/sub/inside" ]; } \
        || { [ "$entry" = link ] && [ ! -L "$work/fusion/link" ]; }; then
        echo "list naming '$entry': something was removed"; status=1
    fi
done
# A list that is itself a link is refused, and what it points to is left whole.
rm -rf "$work" && mkdir -p "$work/fusion" || exit 1
echo keep > "$work/victim"
ln -s ../victim "$work/fusion/.calvarine-script"
out=$("$script" --fusion "$work/fusion" "$scenario" 2>&1)
if [ $? -ne 2 ] || [ "$(cat "$work/victim")" != keep ]; then
    echo "a list that is a link: not refused, or its target changed: $out"; status=1
fi
rm -rf "$work"
exit $status
