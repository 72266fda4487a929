#!/bin/sh
# Usage: check_symbols.sh OBJECT EXPORTS LIBRARIES IMPORTS
# Checks a shared object that a web server loads; the last three are extended regular
# expressions. It exports EXPORTS and nothing else, needs no shared library but
# LIBRARIES, and imports only IMPORTS besides what those bring under a version. It is
# bound as a whole when it is loaded, its stacks are guarded, and functions that fill
# a buffer are told its size.
object=$1

fail() {
  echo "$object: $*"
  exit 1
}

# Those of the names on standard input that aren't allowed.
others() {
  grep -vxE "$1" | xargs
}

exports=$(nm -D --defined-only "$object" | awk '{print $NF}' | sort | xargs)
echo "$exports" | grep -qxE "$2" || fail "exports $exports"

dynamic=$(readelf -Wd "$object")
foreign=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\.so.*/\1/p' | others "$3")
[ -z "$foreign" ] || fail "needs $foreign"
echo "$dynamic" | grep -qE '\(FLAGS_1\).* NOW' || fail "is not bound when it is loaded"

imports=$(nm -D --undefined-only "$object" | awk '$1 == "U" {print $2}')
foreign=$(echo "$imports" | grep -v '@' | others "$4")
[ -z "$foreign" ] || fail "imports $foreign"
for guard in __stack_chk_fail '__[a-z]*printf_chk'; do
  echo "$imports" | grep -qE "^$guard@" || fail "has no $guard"
done
