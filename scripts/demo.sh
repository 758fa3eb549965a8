#!/usr/bin/env bash
# The main job, start to finish, with nothing to set up: builds ksdeploy, describes a sample
# product, publishes it into a folder, installs it from there through a file:// URL, verifies it,
# damages one file and repairs it, and uninstalls it. Everything happens under build/demo/.
#   scripts/demo.sh                  publish and install through file:// URLs
#   KSDEPLOY_DEMO_URL=http://host/demo scripts/demo.sh
#                                    install from that URL instead (serve build/demo/publish there)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/bootstrap.sh"
"$root/scripts/build.sh"

ks="${KSDEPLOY_BUILD_DIR:-$root/build}/bin/ksdeploy"
demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/sample/bin" "$demo/sample/doc" "$demo/publish/items" "$demo/tmp"
# A private temporary folder, so the machine's default cache plays no part in the demo.
export TMPDIR="$demo/tmp"

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
run() { printf '$ %s\n' "$*"; "$@"; }

step "1. A sample product as a build system would leave it"
printf '#!/bin/sh\necho "Hello from the demo application"\n' > "$demo/sample/bin/hello"
chmod +x "$demo/sample/bin/hello"
printf 'Demo application, version 1.\n' > "$demo/sample/README.txt"
head -c 200000 /dev/urandom > "$demo/sample/bin/data.bin"
seq 1 20000 > "$demo/sample/doc/numbers.txt"
(cd "$demo/sample" && find . -type f | sort)

step "2. Describe it: generate the resource graph and save it as product.xml"
run "$ks" --flags quiet=true \
  --generate type=directory path="$demo/sample" 'name=${TARGET}' product=DemoApp \
  --save target="$demo/publish/product.xml" gv=true compress=true

step "3. Publish the contents: one LZMA copy per file, named by its MD5"
run "$ks" --flags quiet=true \
  --cache action=precache dir="$demo/sample" compress=true targetdir="$demo/publish/items"
ls -l "$demo/publish/items"

base="${KSDEPLOY_DEMO_URL:-file://$demo/publish}"
target="$demo/installed/DemoApp"
install=(--flags quiet=true --load url="$base/product.xml" --config TARGET="$target")

step "4. Install from $base into a fresh folder"
run "$ks" "${install[@]}" --product action=install name=DemoApp url="$base/items"
(cd "$target" && find . -type f | sort | xargs md5sum)
"$target/bin/hello"

step "5. Verify the installation"
run "$ks" "${install[@]}" --product action=verify name=DemoApp

step "6. Damage one file: verify fails and says which"
echo "tampered" > "$target/README.txt"
set +e
run "$ks" "${install[@]}" --product action=verify name=DemoApp
echo "exit status: $?"
set -e

step "7. Install again: only the damaged file is rewritten"
run "$ks" "${install[@]}" --product action=install name=DemoApp url="$base/items"
cat "$target/README.txt"
run "$ks" "${install[@]}" --product action=verify name=DemoApp

step "8. Uninstall"
run "$ks" "${install[@]}" --product action=uninstall name=DemoApp
if [ -e "$target" ]; then
  echo "left behind:"; find "$target"
  exit 1
fi
echo "nothing of DemoApp is left under $demo/installed"

step "Done"
echo "product description: $demo/publish/product.xml (Graphviz picture: product.xml.gv)"
echo "published items:     $demo/publish/items"
