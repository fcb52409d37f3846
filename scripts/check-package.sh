#!/usr/bin/env bash
# Builds the Debian package in a built build directory (default build/) and checks it as it
# would be installed: every tool and its manual page in it, libssl3 among its dependencies,
# the extracted indexer indexing the sample, with its index checked by the extracted dump, and
# the extracted decryptor copying the sample, which has nothing enciphered, byte for byte.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

rm -f "$build"/vdxindex_*.deb
(cd "$build" && cpack -G DEB)
debs=("$build"/vdxindex_*.deb)
deb=${debs[0]}
[[ -f "$deb" ]] || { echo "check-package: no package was made" >&2; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
dpkg-deb -x "$deb" "$tmp/root"
for file in usr/bin/vdxindex usr/bin/vdx2dump usr/bin/vdxdecrypt \
  usr/share/man/man1/vdxindex.1 usr/share/man/man1/vdx2dump.1 usr/share/man/man1/vdxdecrypt.1; do
  [[ -e "$tmp/root/$file" ]] || { echo "check-package: $file is missing" >&2; exit 1; }
done
depends=$(dpkg-deb -f "$deb" Depends)
[[ "$depends" == *libssl3* ]] || { echo "check-package: no libssl3 in: $depends" >&2; exit 1; }

# The index goes into the temporary directory, never into samples/.
"$tmp/root/usr/bin/vdxindex" -q samples/sample.ts "$tmp/sample.ts.vdx2"
"$tmp/root/usr/bin/vdx2dump" --check samples/sample.ts "$tmp/sample.ts.vdx2"
# With the content key given, no key list is needed; packets in clear pass as they are.
"$tmp/root/usr/bin/vdxdecrypt" -K 00 samples/sample.ts "$tmp/sample.clear.ts"
cmp samples/sample.ts "$tmp/sample.clear.ts"
echo "check-package: $deb holds the three tools and their pages, depends on $depends, indexes" \
  "the sample and passes it through the decryptor unchanged"
