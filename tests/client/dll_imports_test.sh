#!/bin/sh
# QvDLM.dll must import only Windows system DLLs and LZMA.dll: the MinGW runtime is linked statically.
set -eu
objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump}
imports=$("$objdump" -p "$1" | sed -n 's/^[[:space:]]*DLL Name: //p')
echo "$imports"
status=0
for dll in $imports; do
  case $(echo "$dll" | tr 'A-Z' 'a-z') in
    kernel32.dll|user32.dll|advapi32.dll|shell32.dll|shlwapi.dll|ole32.dll|oleaut32.dll|wininet.dll|winhttp.dll|\
    crypt32.dll|credui.dll|msvcrt.dll|ws2_32.dll|version.dll|lzma.dll|api-ms-win-*) ;;
    *) echo "unexpected import: $dll"; status=1 ;;
  esac
done
exit $status
