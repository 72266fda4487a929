#!/bin/sh
# Usage: check_symbols.sh NM OBJECT
# The connector's object exports its four entry points, and imports the host's
# table and otherwise only versioned symbols of the C and C++ runtime.
nm=$1
object=$2

exports=$("$nm" -D --defined-only "$object" | awk '{print $NF}' | sort | tr '\n' ' ')
if [ "$exports" != "veskend veskfilter veskinit veskservice " ]; then
  echo "exported: $exports"
  exit 1
fi

strong=$("$nm" -D --undefined-only "$object" | awk '$1 == "U" {print $2}')
foreign=$(echo "$strong" | grep -vE '@(GLIBC|GLIBCXX|CXXABI|GCC)_' | tr '\n' ' ')
if [ "$foreign" != "__nsapi30_table " ]; then
  echo "imported besides the runtime: $foreign"
  exit 1
fi
