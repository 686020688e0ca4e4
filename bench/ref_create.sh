#!/usr/bin/env bash
# The reference for the create row of scripts/bench: the disks and the
# configuration of a device made by hand from an extracted image.
#
#   ref_create.sh QEMU_IMG SYSTEM_DISK DATA_DISK DEVICE_DIR DEVICE_JSON
#
# DEVICE_JSON is the text of a device.json with @UUID@ where the device's
# uuid goes.
set -euo pipefail
qemu_img=$1 system=$2 data=$3 device=$4 json=$5
mkdir -p "$device/shared/config"
"$qemu_img" create -f qcow2 -b "$system" -F qcow2 "$device/system.qcow2" >/dev/null
cp "$data" "$device/data.qcow2"
uuid=$(cat /proc/sys/kernel/random/uuid)
sed "s/@UUID@/{$uuid}/" "$json" > "$device/shared/config/device.json"
