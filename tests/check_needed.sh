#!/bin/sh
# Fails unless the library's DT_NEEDED entries are only the C++ runtime, libm,
# libgcc_s and libc (plus a sanitizer runtime in sanitizer builds): libcurl and
# the demultiplexers must come from the loading process. The SONAME must be
# $2 (libhlsclient.so.<major version>).
lib="$1"
needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[ -n "$needed" ] || { echo "no NEEDED entries read from $lib"; exit 1; }
status=0
for n in $(echo "$needed" | grep -vE '^lib(stdc\+\+|m|gcc_s|c|asan|ubsan|tsan)\.so\.'); do
  echo "unexpected needed library: $n"; status=1
done
# The symbols the host supplies must stay undefined in the library.
for sym in $(nm -D --defined-only "$lib" | grep -owE 'curl_easy_init|ts_demux_new|flv_demux_new'); do
  echo "$sym is defined in the library"; status=1
done
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "$2" ] || { echo "SONAME is '$soname', not '$2'"; status=1; }
echo "needed: $needed; soname: $soname"
exit $status
