#!/usr/bin/env bash
# Checks built man pages: mandoc -T lint reports nothing at warning level or
# above, and each page renders with its NAME and the sections it must have.
#   man/check.sh PAGE...
set -u
fails=0
for page in "$@"; do
    name=$(basename "$page")
    lint=$(mandoc -T lint -W warning "$page" 2>&1)
    if [ -n "$lint" ]; then
        echo "FAILED: $name: mandoc -T lint:"; echo "$lint"; fails=$((fails + 1)); continue
    fi
    text=$(mandoc -T utf8 "$page" | col -b)
    want=(NAME SYNOPSIS DESCRIPTION "EXIT STATUS" "SEE ALSO")
    [ "$name" = tovrin.8 ] && want+=(ENVIRONMENT FILES SIGNALS)
    for s in "${want[@]}"; do
        if ! grep -qx "$s" <<<"$text"; then
            echo "FAILED: $name has no $s section"; fails=$((fails + 1))
        fi
    done
    if command -v man >/dev/null && ! MANPAGER="cat" man -l "$page" >/dev/null 2>&1; then
        echo "FAILED: man -l $name"; fails=$((fails + 1))
    fi
    echo "ok: $name"
done
[ "$fails" -eq 0 ]
