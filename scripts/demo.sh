#!/usr/bin/env bash
# The main job, start to finish, with nothing to set up: builds ksdeploy, describes a sample
# product, publishes it into a folder, installs it from there through a file:// URL, verifies it,
# damages one file and repairs it, and uninstalls it. Then it publishes the sample client
# (build/sample), installs it, starts it through its launcher, publishes a second version,
# answers the version question and updates the client, then rolls back a broken third version. Everything happens under build/demo/.
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

sample="${KSDEPLOY_BUILD_DIR:-$root/build}/sample"
client_out="$demo/client-build"
client_pub="$demo/publish/client"
client_base="${KSDEPLOY_DEMO_URL:-file://$demo/publish}/client"
mkdir -p "$client_pub"

# Publishes the client build folder as version $1 with the build-system plugin; extra arguments go
# to --generateProductXML (e.g. updateini=true).
publish_client() {
  local version="$1"; shift
  printf '%s\n' "$version" > "$client_out/ksclient.version"
  run "$ks" --flags quiet=true --generate type=directory path="$client_out" \
    --plugin name=KestraClientBuildSystem \
    --generateProductXML name=KestraClient "displayname=Kestra Demo" version="$version" \
      file="$client_pub/product.xml" compress=true deployer="$ks" "$@"
  run "$ks" --flags quiet=true \
    --cache action=precache dir="$client_out" compress=true targetdir="$client_pub/items"
}
client_key() { sed -n 's/.*<ResourceProduct [^>]*Name="\([^"]*\)".*/\1/p' "$client_pub/product.xml" | head -1; }

step "9. Publish version 1.0.0.0 of the sample client (ksclient.exe and its launcher ksweblaunch.exe)"
mkdir -p "$client_out"
cp "$sample/ksclient.exe" "$sample/ksweblaunch.exe" "$client_out/"
publish_client 1.0.0.0

step "10. Install it as <target>/Kestra/Client"
client_target="$demo/installed/Programs"
mkdir -p "$client_target"
run "$ks" --flags quiet=true --load url="$client_base/product.xml" \
  --config DIR_TARGET="$client_target" DIR_VENDOR=Kestra DIR_APPLICATION=Client \
  --product action=install name="$(client_key)" url="$client_base/items"
ls -l "$client_target/Kestra/Client"

step "11. Start the client through its launcher: ksdeploy loads the description and starts it"
printf 'demo-secret\n' > "$demo/password" && chmod 600 "$demo/password"
export KSCLIENT_REPORT="$demo/client-report.txt"
launch=("$client_target/Kestra/Client/ksweblaunch.exe" --url "$client_base" --server demo.example
        --user demo --password-file "$demo/password" --env KSCLIENT_THEME=dark --quiet)
# On the console, whatever the desktop: the question below is answered there.
run env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "${launch[@]}" -- --start old@elsewhere --project Demo </dev/null
echo "what the client was started with (password masked):"
sed 's/demo-secret/******/' "$KSCLIENT_REPORT"

step "12. Publish version 2.0.0.0 with an update.ini that recommends it, and launch again"
publish_client 2.0.0.0 previous="$client_pub/product.xml" updateini=true \
  "message=Version 2 starts faster."
cat "$client_pub/update.ini"
rm -f "$KSCLIENT_REPORT"
# Without a terminal the default answer (Yes) is taken: the installed client starts, then the
# launcher's engine hands the update to a copy of itself in a sandbox and ends. That copy stages
# version 2 beside the installed folder, exchanges the two folders and starts the new client. The
# launcher waits for that copy's outcome: its exit status is 0 when the update was installed.
launch_and_wait() {
  set +e
  run env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "${launch[@]}" </dev/null | cat
  local status=${PIPESTATUS[0]}
  set -e
  echo "the launcher's exit status: $status (0: updated, 1: not updated)"
}
launch_and_wait
echo "the client that started last reports: $(grep '^version=' "$KSCLIENT_REPORT")"
ls -d "$client_target/Kestra/"*

step "13. Publish a broken version 3.0.0.0 (its client fails at start): the update is rolled back"
printf '1\n' > "$client_out/ksclient.exitstatus"
publish_client 3.0.0.0 previous="$client_pub/product.xml" updateini=true
rm -f "$client_out/ksclient.exitstatus"
rm -f "$KSCLIENT_REPORT"
launch_and_wait
echo "the client that started last reports: $(grep '^version=' "$KSCLIENT_REPORT")"
echo "installed: $(cat "$client_target/Kestra/Client/ksclient.version")"

step "Done"
echo "product description: $demo/publish/product.xml (Graphviz picture: product.xml.gv)"
echo "published items:     $demo/publish/items"
