#!/bin/sh
# calvarine's command line needs no display: --help exits 0 with the French
# text, a mistake says which and exits 2, and nothing aborts.
# usage: calvarine-command-line.sh PATH/TO/calvarine
app=$1
unset DISPLAY WAYLAND_DISPLAY QT_QPA_PLATFORM
out=$("$app" --help) || { echo "FAILED: --help exited $?"; exit 1; }
echo "$out" | grep -q '^Usage : calvarine' || { echo "FAILED: --help printed: $out"; exit 1; }
if echo "$out" | grep -Eq 'Displays|Database file|Write paper'; then
    echo "FAILED: English in the help: $out"; exit 1
fi
err=$("$app" --bogus 2>&1)
status=$?
[ "$status" -eq 2 ] || { echo "FAILED: --bogus exited $status: $err"; exit 1; }
echo "$err" | grep -q 'option inconnue : « --bogus »' || { echo "FAILED: --bogus said: $err"; exit 1; }
err=$("$app" --db 2>&1)
[ $? -eq 2 ] && echo "$err" | grep -q 'attend une valeur' || { echo "FAILED: --db without value said: $err"; exit 1; }
# Without a display, a start says so instead of aborting.
err=$("$app" --db /nonexistent/x.db 2>&1)
status=$?
[ "$status" -eq 1 ] && echo "$err" | grep -q 'aucun affichage' || { echo "FAILED: no display gave $status: $err"; exit 1; }
echo "calvarine command line: all checks passed"
