#!/bin/sh
# Renders each manual page given as it would be shown, 80 columns wide, and
# fails when the formatter prints anything at all on its error output (an
# unknown macro, a bad escape, a line it cannot break, ...). Uses man(1)
# from man-db, or groff alone when man is missing; exit 77 (skip) when
# neither is installed.
#   render-check.sh PAGE...
if command -v man >/dev/null 2>&1; then
    render() { MANWIDTH=80 LC_ALL=C.UTF-8 man --warnings=w -l "$1" 2>&1 >/dev/null; }
elif command -v groff >/dev/null 2>&1; then
    render() { LC_ALL=C.UTF-8 groff -man -ww -Tutf8 -z "$1" 2>&1; }
else
    echo "neither man nor groff is installed (Debian: man-db, groff-base): skipped"
    exit 77
fi

status=0
for page in "$@"; do
    if [ ! -s "$page" ]; then
        echo "FAIL $page: missing or empty (is the build done?)"
        status=1
        continue
    fi
    out=$(render "$page")
    if [ -n "$out" ]; then
        echo "FAIL $page:"
        echo "$out"
        status=1
    else
        echo "ok   $page"
    fi
done
exit $status
