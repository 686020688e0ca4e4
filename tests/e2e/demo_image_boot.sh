#!/usr/bin/env bash
# Boots the demo OS image under TCG the way the engine launches a device, once
# on virtio disks (the Android 11.0 record) and once on IDE disks (the Android
# 7.1 record):
#   - the records describe the archive (size, hash, file URL, versions);
#   - the archive is ustar and holds the descriptor and the two disks;
#   - a cold boot answers on the forwarded port through 127.0.0.1 with the
#     banner and boot counter 1;
#   - a snapshot saved over QMP and loaded with -loadvm resumes the same boot
#     (same boot id, same counter);
#   - a second cold boot has a new boot id and counter 2.
# Every emulator started here is killed and reaped on exit, whatever happens.
#
#   demo_image_boot.sh [IMAGE_DIR]       (default: build/demo-image)
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
image_dir=${1:-$repo/build/demo-image}
qemu=${HV_TEST_QEMU:-qemu-system-x86_64}
qemu_img=${HV_TEST_QEMU_IMG:-qemu-img}
boot_limit=${HV_TEST_BOOT_LIMIT:-240}

failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
die() { echo "FAIL: $*" >&2; exit 1; }
note() { echo "demo_image_boot: $*"; }

work=$(mktemp -d "${TMPDIR:-/tmp}/demo-image-boot.XXXXXX")
qemu_pid=
stop_qemu() {
    [ -n "$qemu_pid" ] || return 0
    kill -TERM "$qemu_pid" 2>/dev/null || true
    for _ in $(seq 1 50); do
        kill -0 "$qemu_pid" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$qemu_pid" 2>/dev/null || true
    wait "$qemu_pid" 2>/dev/null || true
    qemu_pid=
}
cleanup() {
    stop_qemu
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# --- The image and its records -------------------------------------------------
"$repo/scripts/demo-image" "$image_dir" >/dev/null
ova=$image_dir/halvistrom-demo.ova
[ -f "$ova" ] || die "no archive at '$ova'"

# GNU tar's own format would say "ustar  "; the archive must be plain ustar.
magic=$(dd if="$ova" bs=1 skip=257 count=8 2>/dev/null | od -An -c | tr -d ' \n')
[ "$magic" = 'ustar\000' ] || fail "archive is not ustar (magic '$magic')"
entries=$(tar -tf "$ova" | tr '\n' ' ')
[ "$entries" = "halvistrom-demo.ovf system.vmdk data.vmdk " ] \
    || fail "archive entries are '$entries'"

check_record() { # file android-version sdk arch
    python3 - "$@" "$ova" <<'EOF' || fail "record $1 is wrong"
import hashlib, json, os, sys
path, android, sdk, arch, ova = sys.argv[1:]
r = json.load(open(path))
digest = hashlib.sha256(open(ova, "rb").read()).hexdigest()
expected = {
    "version": "1.1.0",
    "arch": arch,
    "image_uri": "file://" + os.path.abspath(ova),
    "image_size_bytes": os.path.getsize(ova),
    "image_hash": digest,
    "image_version": "1.0.0",
    "source": "USER",
    "is_beta": False,
}
bad = [f"{k}={r.get(k)!r}, expected {v!r}" for k, v in expected.items() if r.get(k) != v]
osv = r.get("os_version", {})
if osv.get("os_version") != android or osv.get("sdk_version") != int(sdk):
    bad.append(f"os_version={osv!r}")
for key in ("name", "uuid", "build_date"):
    if not r.get(key):
        bad.append(f"{key} is empty")
if "PHONE" not in r.get("supported_form_factors", []):
    bad.append("PHONE is not a supported form factor")
for b in bad:
    print(f"FAIL: {path}: {b}", file=sys.stderr)
sys.exit(1 if bad else 0)
EOF
}
check_record "$image_dir/demo-android-11.0.json" 11.0.0 30 x86_64
check_record "$image_dir/demo-android-7.1.json" 7.1.0 25 x86

# --- Booting ---------------------------------------------------------------------
# A device directory as the engine makes one: the archive extracted, its disks
# converted to qcow2 references, an overlay system disk and a copy of the data
# disk.
make_device() { # dir
    local dir=$1
    mkdir -p "$dir/ref" "$dir/shared"
    tar -xf "$ova" -C "$dir/ref"
    "$qemu_img" convert -O qcow2 "$dir/ref/system.vmdk" "$dir/ref/system.qcow2"
    "$qemu_img" convert -O qcow2 "$dir/ref/data.vmdk" "$dir/ref/data.qcow2"
    "$qemu_img" create -q -f qcow2 -b "$dir/ref/system.qcow2" -F qcow2 "$dir/system.qcow2"
    cp "$dir/ref/data.qcow2" "$dir/data.qcow2"
}

# The engine's command line, with the test overrides for emulation (TCG, a
# CPU model it runs, no sound). A cold boot attaches the shared folder
# read-write; a resume attaches it read-only, on virtio, when the disks are.
start_qemu() { # dir iface adb-port qmp-port snapshot
    local dir=$1 iface=$2 adb=$3 qmp=$4 snapshot=$5 bus= shared
    [ "$iface" = virtio ] && bus=,if=virtio
    if [ -z "$snapshot" ]; then
        shared=(-drive "format=vvfat,label=shared,id=shared,file=fat:rw:$dir/shared$bus")
    elif [ "$iface" = virtio ]; then
        shared=(-drive "format=vvfat,label=shared,file=fat:ro:$dir/shared,if=virtio" -loadvm "$snapshot")
    else
        shared=(-loadvm "$snapshot")
    fi
    "$qemu" --device ac97,audiodev=snd0 -accel tcg -audiodev none,id=snd0 -cpu max \
        -device virtio-rng-pci \
        -drive "file=$dir/system.qcow2,format=qcow2$bus" \
        -drive "file=$dir/data.qcow2,format=qcow2$bus" \
        "${shared[@]}" -m 1024M \
        -nic "user,id=net0,model=virtio-net-pci,net=10.0.2.0/24,hostfwd=tcp:127.0.0.1:$adb-:5555" \
        -nic "user,id=net1,model=virtio-net-pci,net=10.0.3.0/24" \
        -nodefaults -nographic -object iothread,id=disk-iothread \
        -qmp "tcp:127.0.0.1:$qmp,server,nowait" -smp 2 -vga std \
        </dev/null >"$dir/qemu.log" 2>&1 &
    qemu_pid=$!
}

# Reads the guest's one line through its debug bridge on the forwarded port.
# Until the guest listens, the user-mode network accepts and then drops the
# connection.
banner=
read_banner() { # port
    local deadline=$((SECONDS + boot_limit)) line
    banner=
    while [ $SECONDS -lt $deadline ]; do
        kill -0 "$qemu_pid" 2>/dev/null || return 1
        line=$(python3 -c "import sys; sys.path.insert(0, '$repo/tests/e2e'); import hvtool_e2e as e
print(e.bridge_shell($1, 'banner').strip())" 2>/dev/null || true)
        if [ -n "$line" ]; then
            banner=${line%$'\r'}
            return 0
        fi
        sleep 0.5
    done
    return 1
}

# Sends human-monitor commands over QMP; prints each command's answer.
qmp_hmp() { # port command...
    local port=$1 line cmd
    shift
    exec 4<>"/dev/tcp/127.0.0.1/$port" || return 1
    read -t 5 -r line <&4 || return 1
    echo '{"execute": "qmp_capabilities"}' >&4
    read -t 5 -r line <&4 || return 1
    for cmd in "$@"; do
        printf '{"execute": "human-monitor-command", "arguments": {"command-line": "%s"}}\n' "$cmd" >&4
        while read -t 120 -r line <&4; do
            case "$line" in *'"return"'*|*'"error"'*) echo "$line"; break ;; esac
        done
    done
    exec 4>&-
}

quit_qemu() { # qmp-port
    { exec 4<>"/dev/tcp/127.0.0.1/$1" && read -t 5 -r _ <&4 \
        && echo '{"execute": "qmp_capabilities"}' >&4 && read -t 5 -r _ <&4 \
        && echo '{"execute": "quit"}' >&4; exec 4>&-; } 2>/dev/null || true
    for _ in $(seq 1 100); do
        kill -0 "$qemu_pid" 2>/dev/null || break
        sleep 0.1
    done
    stop_qemu
}

field() { # name -> value from the banner
    local word
    for word in $banner; do
        case "$word" in "$1="*) echo "${word#*=}"; return ;; esac
    done
}

pattern='^HALVISTROM-DEMO boot_id=[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12} boot_count=[0-9]+ uptime=[0-9]+\.[0-9]+$'

boot() { # label dir iface snapshot expected-count -> sets boot_id, elapsed
    local label=$1 dir=$2 iface=$3 snapshot=$4 count=$5 adb qmp start
    adb=$(free_port)
    qmp=$(free_port)
    start=$(date +%s%N)
    start_qemu "$dir" "$iface" "$adb" "$qmp" "$snapshot"
    if ! read_banner "$adb"; then
        fail "$iface $label: no banner on 127.0.0.1:$adb within ${boot_limit}s; qemu.log: $(tail -n 3 "$dir/qemu.log")"
        stop_qemu
        return 1
    fi
    elapsed=$(( ($(date +%s%N) - start) / 1000000 ))
    note "$iface $label: $(printf '%d.%03d' $((elapsed / 1000)) $((elapsed % 1000)))s: $banner"
    [[ "$banner" =~ $pattern ]] || fail "$iface $label: banner '$banner' is malformed"
    [ "$(field boot_count)" = "$count" ] || fail "$iface $label: boot_count is '$(field boot_count)', expected $count"
    boot_id=$(field boot_id)
    last_qmp=$qmp
}

run_interface() { # iface
    local iface=$1 dir=$work/$1 first_id reply
    make_device "$dir"

    boot "cold boot" "$dir" "$iface" "" 1 || return 0
    first_id=$boot_id
    # The read-write shared folder blocks snapshots, so it goes first.
    reply=$(qmp_hmp "$last_qmp" "drive_del shared" "savevm latest" | tr -d "\r" | tr "\n" " ")
    [ "$reply" = '{"return": ""} {"return": ""} ' ] || fail "$iface: saving the snapshot answered '$reply'"
    quit_qemu "$last_qmp"
    "$qemu_img" snapshot -l "$dir/system.qcow2" | grep -qw latest \
        || fail "$iface: no snapshot 'latest' on the system disk"

    boot "resume" "$dir" "$iface" latest 1 || return 0
    [ "$boot_id" = "$first_id" ] || fail "$iface: the resumed guest has boot id '$boot_id', expected '$first_id'"
    quit_qemu "$last_qmp"

    boot "second cold boot" "$dir" "$iface" "" 2 || return 0
    [ "$boot_id" != "$first_id" ] || fail "$iface: the second cold boot kept boot id '$boot_id'"
    quit_qemu "$last_qmp"
}

run_interface virtio
run_interface ide

if [ "$failures" -ne 0 ]; then
    echo "demo_image_boot: $failures check(s) failed" >&2
    exit 1
fi
note "all checks passed"
