#!/usr/bin/env bash
# scripts/package on a clone of the committed tree: a dirty tree and a failed
# build are refused with their cause and leave no package; a clean tree gives
# the two packages, which lintian passes.
#   deb_test.sh SOURCE_DIR WORK_DIR
set -euo pipefail
source_dir=$1 work=$2
rm -rf "$work"
git clone -q "$source_dir" "$work/tree"
cd "$work/tree"
git -c user.name=t -c user.email=t@t commit -q --allow-empty -m base
out=$work/out

expect_refusal() {
    local cause=$1 log=$work/refused.log
    if scripts/package --out "$out" >"$log" 2>&1; then
        echo "FAIL: scripts/package succeeded; expected: $cause"; exit 1
    fi
    grep -q "$cause" "$log" || { echo "FAIL: expected '$cause' in:"; cat "$log"; exit 1; }
    [ -z "$(ls -A "$out" 2>/dev/null)" ] || { echo "FAIL: a refused run left $(ls "$out")"; exit 1; }
}

echo "stray" > stray.txt
expect_refusal "the work tree has uncommitted changes"
rm stray.txt

sed -i '1s/(\([0-9.]*\))/(0.0.1)/' packaging/changelog
git -c user.name=t -c user.email=t@t commit -q -am "a changelog behind the version"
expect_refusal "configuring failed"
git reset -q --hard HEAD~1

scripts/package --out "$out"
ls "$out"/hvtool_*_amd64.deb "$out"/libhalvistrom-core-dev_*_amd64.deb
[ "$(ls -A "$out" | wc -l)" -eq 2 ] || { echo "FAIL: expected two packages in $out: $(ls -A "$out")"; exit 1; }
contents=$(for deb in "$out"/*.deb; do dpkg-deb -c "$deb"; done)
for file in usr/share/doc/hvtool/copyright usr/share/man/man1/hvtool.1.gz usr/share/bash-completion/completions/hvtool \
            usr/lib/x86_64-linux-gnu/pkgconfig/halvistrom-core.pc usr/include/HalvistromCore/VMToolsEngine.h; do
    grep -q " ./$file\$" <<<"$contents" || { echo "FAIL: no $file in the packages"; exit 1; }
done
rm -rf "$work"
echo "package_deb: ok"
