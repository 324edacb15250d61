#!/usr/bin/env bash
# run-in-vm.sh - runs a test program inside a throw-away QEMU virtual machine
# that has a real kernel CAN stack, for hosts whose kernel has none.
#
#   run-in-vm.sh [--bin PROGRAM]... [--share DIR] [--smoke] [--] TEST [ARGS...]
#   run-in-vm.sh --smoke-only
#
# The guest boots Debian's own kernel (fetched once with `apt-get download`
# and only unpacked into the cache, never installed) with a busybox
# initramfs, loads can, can-raw, can-isotp, can-bcm, can-gw and vcan, and
# brings up two interfaces:
#   vcan0     classic CAN (MTU 16)
#   vcanfd0   CAN-FD (MTU 72)
# TEST and every --bin PROGRAM are copied to /test/ in the guest together with
# the shared libraries ldd reports (at their host paths, so RUNPATHs still
# resolve). can-utils' candump, cansend, cangen, isotpsend, isotprecv, isotpdump
# are in /usr/bin and iproute2's ip is /sbin/ip. The test runs as root in
# /test with OCP_VM_CLASSIC_IF=vcan0 and OCP_VM_FD_IF=vcanfd0 exported.
# --share DIR mounts DIR at /mnt/host (9p) to bring data in or results out.
# --smoke first checks the stack with can-utils (classic, FD and ISO-TP).
#
# Exit status: the test's own (0..127); 77 = skipped because QEMU or a tool it
# needs is not usable on this host (the reason is printed); 124 = the VM timed
# out; 125 = the VM ended without a result (kernel panic, init error);
# 126 = the host set-up failed (the reason is printed).
#
# The guest console is kept in a log and printed only when the test fails
# (or always with OCP_VM_VERBOSE=1), so a passing test stays quiet.
#
# Environment:
#   OCP_VM_CACHE    cache directory (default ${XDG_CACHE_HOME:-~/.cache}/ocp_api/vm);
#                   several runs may share it at once: its set-up is locked
#   OCP_VM_TIMEOUT  seconds before the VM is killed (default 300)
#   OCP_VM_MEM      guest memory in MiB (default 512)
#   OCP_VM_KERNEL_PKG  pin the Debian kernel package (e.g. linux-image-6.1.0-28-amd64);
#                   by default the one linux-image-amd64 depends on, remembered in the cache
#   OCP_VM_VERBOSE  1 = always copy the guest console to standard output
set -euo pipefail

SCRIPT=$(realpath "${BASH_SOURCE[0]}")
CACHE=${OCP_VM_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/ocp_api/vm}
TIMEOUT=${OCP_VM_TIMEOUT:-300}
MEM=${OCP_VM_MEM:-512}
VERBOSE=${OCP_VM_VERBOSE:-0}
CAN_MODULES="vcan can-raw can-isotp can-bcm can-gw"
SHARE_MODULES="virtio_pci 9pnet_virtio 9p"
GUEST_TOOLS="candump cansend cangen isotpsend isotprecv isotpdump"
SKIPPED=77 SETUP_FAILED=126

fail_setup() { echo "run-in-vm: $*" >&2; exit $SETUP_FAILED; }
# CI machines can run QEMU: there a test that cannot run is a failure, not a skip.
skip() {
  if [ "${CI:-}" = true ]; then echo "run-in-vm: cannot run (CI=true, so this fails): $*" >&2; exit 126; fi
  echo "run-in-vm: SKIPPED: $*" >&2; exit $SKIPPED
}
note() { echo "run-in-vm: $*" >&2; }

usage="usage: run-in-vm.sh [--bin PROGRAM]... [--share DIR] [--smoke] [--] TEST [ARGS...] | --smoke-only"
SMOKE=0 SMOKE_ONLY=0 SHARE="" EXTRA_BINS=()
while [ $# -gt 0 ]; do
  case "$1" in
    --bin) [ $# -ge 2 ] || fail_setup "$usage"; EXTRA_BINS+=("$2"); shift 2 ;;
    --share) [ $# -ge 2 ] || fail_setup "$usage"; SHARE=$(realpath "$2"); shift 2 ;;
    --smoke) SMOKE=1; shift ;;
    --smoke-only) SMOKE=1; SMOKE_ONLY=1; shift ;;
    --) shift; break ;;
    -*) fail_setup "unknown option $1; $usage" ;;
    *) break ;;
  esac
done
TEST_BIN=""
if [ "$SMOKE_ONLY" = 0 ]; then
  [ $# -ge 1 ] || fail_setup "$usage"
  TEST_BIN=$(realpath "$1"); shift
  [ -f "$TEST_BIN" ] && [ -x "$TEST_BIN" ] || fail_setup "$TEST_BIN is not an executable file"
fi
for b in "${EXTRA_BINS[@]}"; do [ -f "$b" ] && [ -x "$b" ] || fail_setup "$b is not an executable file"; done
[ -z "$SHARE" ] || [ -d "$SHARE" ] || fail_setup "$SHARE is not a directory"

# ------------------------------------------------------------ 1. can it run here?
# scripts/install-deps.sh installs all of these; a test never installs anything.
command -v qemu-system-x86_64 >/dev/null || skip "qemu-system-x86_64 is not installed (Debian package qemu-system-x86)"
BB=/bin/busybox
{ "$BB" --list 2>/dev/null || true; } | grep -x cpio >/dev/null || skip "$BB with cpio is missing (Debian package busybox-static)"
for t in $GUEST_TOOLS; do command -v "$t" >/dev/null || skip "$t is missing (Debian package can-utils)"; done
for t in ip xz readelf dpkg-deb apt-get apt-cache ldd gzip flock; do
  command -v "$t" >/dev/null || skip "$t is missing"
done
# QEMU must start at all (a missing library or an unsupported host shows here).
qemu-system-x86_64 -version >/dev/null 2>&1 || skip "qemu-system-x86_64 does not run on this host: $(qemu-system-x86_64 -version 2>&1 | head -1)"

mkdir -p "$CACHE" || fail_setup "cannot create the cache directory $CACHE"

# ------------------------------------------------------------ 2. kernel (locked)
# Two tests may start at once on an empty cache: the first fetches and
# unpacks, the other waits for the lock and then finds everything ready.
exec 9>"$CACHE/.lock"
flock 9

KPKG=${OCP_VM_KERNEL_PKG:-}
[ -z "$KPKG" ] && [ -s "$CACHE/kernel-pkg" ] && KPKG=$(cat "$CACHE/kernel-pkg")
if [ -z "$KPKG" ]; then
  KPKG=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/{print $2; exit}')
  [ -n "$KPKG" ] || fail_setup "cannot resolve the kernel package linux-image-amd64 depends on (is 'apt-get update' needed?)"
  echo "$KPKG" > "$CACHE/kernel-pkg"
fi
KVER=${KPKG#linux-image-}
KDIR=$CACHE/kernel-$KVER
# Only the parts needed are unpacked (~10 MB of ~400): the kernel image and the
# module folders for CAN, vcan, virtio and 9p.
KPARTS="kernel/net/can kernel/drivers/net/can/dev kernel/drivers/net/can/vcan.ko kernel/drivers/virtio
        kernel/net/9p kernel/fs/9p kernel/fs/netfs kernel/fs/fscache"
if [ ! -e "$KDIR/.ready" ]; then
  note "fetching $KPKG (only unpacked into $KDIR, never installed)"
  rm -rf "$KDIR" "$CACHE/debs"; mkdir -p "$CACHE/debs" "$KDIR/root"
  # As root, apt warns that its sandbox user cannot write here; harmless.
  ( cd "$CACHE/debs" && apt-get download "$KPKG" 2>&1 | { grep -v unsandboxed || true; } ) >&2
  DEB=$(ls "$CACHE"/debs/"${KPKG}"_*.deb 2>/dev/null | head -1)
  [ -n "$DEB" ] || fail_setup "apt-get download $KPKG failed"
  patterns=("./boot/vmlinuz-$KVER" "./lib/modules/$KVER/modules.*")
  for p in $KPARTS; do patterns+=("./lib/modules/$KVER/$p" "./lib/modules/$KVER/$p/*"); done
  dpkg-deb --fsys-tarfile "$DEB" | tar -x -C "$KDIR/root" --wildcards --no-wildcards-match-slash "${patterns[@]}" 2>/dev/null || true
  [ -e "$KDIR/root/boot/vmlinuz-$KVER" ] || fail_setup "unpacking $DEB failed"
  # The package ships no modules.dep (depmod runs at install time).
  "$BB" depmod -b "$KDIR/root" "$KVER"
  # The bzImage is XZ-compressed and decompressing it under emulation costs
  # seconds per boot; the ELF vmlinux inside boots directly (PVH entry point).
  VMLINUZ=$KDIR/root/boot/vmlinuz-$KVER
  offset=$(set +o pipefail; LC_ALL=C grep -obUaP '\xfd7zXZ\x00' "$VMLINUZ" | head -1 | cut -d: -f1)
  if [ -n "$offset" ] && (set +o pipefail; tail -c +$((offset + 1)) "$VMLINUZ" | xz -dc --single-stream > "$KDIR/vmlinux") \
     && readelf -n "$KDIR/vmlinux" 2>/dev/null | grep -q 'note type: (0x00000012)'; then   # the PVH entry note
    :
  else
    rm -f "$KDIR/vmlinux"; note "no PVH-bootable vmlinux inside; booting the compressed image"
  fi
  rm -rf "$CACHE/debs"
  touch "$KDIR/.ready"
fi
MODROOT=$KDIR/root/lib/modules/$KVER
KERNEL=$KDIR/vmlinux
[ -e "$KERNEL" ] || KERNEL=$KDIR/root/boot/vmlinuz-$KVER

# ------------------------------------------------------------ 3. initramfs
# copy_bin ROOT SRC DEST: a program and the shared libraries ldd reports.
copy_bin() {
  local root=$1 src=$2 dest=$3 lib
  mkdir -p "$root$(dirname "$dest")"
  cp -L --remove-destination "$src" "$root$dest"
  for lib in $(ldd "$src" 2>/dev/null | grep -o '/[^ ]*' || true); do
    [ -e "$root$lib" ] || { mkdir -p "$root$(dirname "$lib")"; cp -L "$lib" "$root$lib"; }
  done
}
# module load order from modules.dep, dependencies first
declare -A SEEN=()
mod_order() {
  local m=$1 line dep
  [ -n "${SEEN[$m]:-}" ] && return; SEEN[$m]=1
  line=$(grep -E "/$m\.ko(\.[a-z]+)?:" "$MODROOT/modules.dep") || fail_setup "module $m is not in modules.dep"
  for dep in ${line#*:}; do mod_order "$(basename "$dep" | sed 's/\.ko.*//')"; done
  echo "${line%%:*}"
}

# The base archive depends on this script's text: each version of the script
# gets its own, so checkouts with different versions can share one cache.
BASE=$CACHE/base-$KVER-$(sha256sum "$SCRIPT" | cut -c1-16).cpio.gz
if [ ! -e "$BASE" ]; then
  note "building the base initramfs"
  R=$(mktemp -d "$CACHE/base.XXXX")
  mkdir -p "$R"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,mnt/host,etc,test}
  cp "$BB" "$R/bin/busybox"
  for a in $("$BB" --list-full); do [ -e "$R/$a" ] || ln -s /bin/busybox "$R/$a"; done
  copy_bin "$R" "$(command -v ip)" /sbin/ip
  for t in $GUEST_TOOLS; do copy_bin "$R" "$(command -v "$t")" "/usr/bin/$t"; done
  for m in $CAN_MODULES; do mod_order "$m"; done | awk '!s[$0]++' > "$R/etc/modules.can"
  SEEN=()
  for m in $SHARE_MODULES; do mod_order "$m"; done | awk '!s[$0]++' > "$R/etc/modules.9p"
  for f in $(cat "$R/etc/modules.can" "$R/etc/modules.9p"); do
    mkdir -p "$R/lib/modules/$(dirname "$f")"; cp "$MODROOT/$f" "$R/lib/modules/$f"
  done
  cat > "$R/init" <<'EOF'
#!/bin/sh
export PATH=/sbin:/usr/sbin:/bin:/usr/bin
mount -t proc proc /proc; mount -t sysfs sys /sys; mount -t devtmpfs dev /dev
exec </dev/null >/dev/console 2>&1
. /test/config
finish() {  # reports $1 on the console and through isa-debug-exit, then powers off
  rc=$1; [ "$rc" -gt 127 ] && rc=127
  echo "OCP-VM-RESULT: rc=$rc"
  [ -n "$SHARE" ] && { sync; umount /mnt/host; }
  printf "\\$(printf %o "$rc")" | dd of=/dev/port bs=1 seek=244 count=1 2>/dev/null
  poweroff -f
}
for m in $(cat /etc/modules.can); do insmod /lib/modules/$m || { echo "insmod $m failed"; finish 125; }; done
# busybox runs its own "ip" applet before PATH; iproute2 is called by full path.
/sbin/ip link add dev vcan0 type vcan && /sbin/ip link set vcan0 mtu 16 && /sbin/ip link set vcan0 up \
  && /sbin/ip link add dev vcanfd0 type vcan && /sbin/ip link set vcanfd0 mtu 72 && /sbin/ip link set vcanfd0 up \
  || { echo "bringing up vcan0 and vcanfd0 failed"; finish 125; }
export OCP_VM_CLASSIC_IF=vcan0 OCP_VM_FD_IF=vcanfd0
if [ -n "$SHARE" ]; then
  for m in $(cat /etc/modules.9p); do insmod /lib/modules/$m || finish 125; done
  mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 hostshare /mnt/host || finish 125
fi
if [ "$SMOKE" = 1 ]; then
  echo "== smoke test: candump, cansend (classic and CAN-FD), isotpsend -> isotprecv"
  candump -L -n 3 -T 5000 vcan0 vcanfd0 > /tmp/candump.log & CD=$!
  isotprecv -s 7E8 -d 7E0 vcan0 > /tmp/isotp.log & IR=$!
  i=0  # until both receivers are registered with the CAN core
  while [ "$(cat /proc/net/can/rcvlist_all /proc/net/can/rcvlist_sff | grep -c ' vcan')" -lt 3 ] && [ $i -lt 100 ]; do
    usleep 50000; i=$((i + 1)); done
  cansend vcan0 123#DEADBEEF
  cansend vcanfd0 123##1$(i=0; while [ $i -lt 64 ]; do printf %02X $i; i=$((i+1)); done)
  echo "00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF 10 11 12 13" | isotpsend -s 7E0 -d 7E8 vcan0
  wait $CD; wait $IR
  cat /tmp/candump.log; echo "isotprecv got: $(cat /tmp/isotp.log)"
  if grep -q 'vcan0 123#DEADBEEF' /tmp/candump.log \
     && grep -q 'vcanfd0 123##[0-9A-F]000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F$' /tmp/candump.log \
     && grep -q '00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF 10 11 12 13' /tmp/isotp.log; then
    echo "SMOKE: PASS"
  else
    echo "SMOKE: FAIL"; finish 1
  fi
fi
[ -z "$TEST" ] && finish 0
echo "== running $TEST $*"
cd /test
"$TEST" "$@"; finish $?
EOF
  chmod +x "$R/init"
  ( cd "$R" && find . | sort | "$BB" cpio -o -H newc -R 0:0 2>/dev/null | gzip -6 > "$BASE.tmp" ) && mv "$BASE.tmp" "$BASE"
  rm -rf "$R"
fi
flock -u 9

# The per-run archive: the test, the extra programs, their libraries and
# /test/config. The kernel unpacks concatenated archives in order, so the
# base stays cached and shared.
RUN=$(mktemp -d "$CACHE/run.XXXXXX")
QEMU_PID=""
cleanup() {
  [ -n "$QEMU_PID" ] && kill "$QEMU_PID" 2>/dev/null
  rm -rf "$RUN"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
R=$RUN/root
mkdir -p "$R/test"
TEST=""
if [ -n "$TEST_BIN" ]; then
  TEST=/test/$(basename "$TEST_BIN")
  copy_bin "$R" "$TEST_BIN" "$TEST"
fi
for b in "${EXTRA_BINS[@]}"; do copy_bin "$R" "$b" "/test/$(basename "$b")"; done
{ printf 'SMOKE=%s\nSHARE=%s\nTEST=%s\nset --' "$SMOKE" "${SHARE:+1}" "$TEST"
  for a in "$@"; do printf " '%s'" "${a//\'/\'\\\'\'}"; done; echo; } > "$R/test/config"
( cd "$R" && find . | sort | "$BB" cpio -o -H newc -R 0:0 2>/dev/null | gzip -1 > "$RUN/run.cpio.gz" )
cat "$BASE" "$RUN/run.cpio.gz" > "$RUN/initramfs.gz"

# ------------------------------------------------------------ 4. boot
# The CPU emulator (TCG) always works; hardware virtualisation is used only
# when /dev/kvm is usable and the CPU says it has it.
ACCEL_ARGS=(-accel tcg)
if [ -r /dev/kvm ] && [ -w /dev/kvm ] && grep -qwE 'vmx|svm' /proc/cpuinfo; then ACCEL_ARGS=(-accel kvm -cpu host); fi
SHARE_ARGS=()
[ -n "$SHARE" ] && SHARE_ARGS=(-virtfs "local,path=$SHARE,mount_tag=hostshare,security_model=none,id=hostshare")
LOG=$RUN/console.log
T0=$(date +%s.%N)
set +e
timeout "$TIMEOUT" qemu-system-x86_64 "${ACCEL_ARGS[@]}" -m "$MEM" -smp 1 \
  -kernel "$KERNEL" -initrd "$RUN/initramfs.gz" \
  -append "console=ttyS0 quiet loglevel=3 panic=-1 mitigations=off" \
  -nodefaults -no-user-config -nic none -display none -serial "file:$LOG" -no-reboot \
  -device isa-debug-exit,iobase=0xf4,iosize=0x04 "${SHARE_ARGS[@]}" </dev/null >"$RUN/qemu.out" 2>&1 &
QEMU_PID=$!
wait "$QEMU_PID"
QRC=$?
QEMU_PID=""
set -e
SECONDS_RUN=$(awk -v a="$T0" -v b="$(date +%s.%N)" 'BEGIN{printf "%.1f", b-a}')
RESULT=$(grep -ao 'OCP-VM-RESULT: rc=[0-9]*' "$LOG" 2>/dev/null | tail -1 | sed 's/.*rc=//' || true)
if [ "$QRC" = 124 ]; then RC=124; why="the VM timed out after ${TIMEOUT} s"
elif [ $((QRC & 1)) = 1 ] && [ "$QRC" -gt 1 ]; then RC=$((QRC >> 1)); why="test exit status $RC"  # isa-debug-exit: (status << 1) | 1
elif [ -n "$RESULT" ]; then RC=$RESULT; why="test exit status $RC"
else RC=125; why="the VM ended without a result (qemu status $QRC)"; fi
# A status of 0 written to isa-debug-exit gives QEMU status 1.
[ "$QRC" = 1 ] && [ "${RESULT:-}" = 0 ] && { RC=0; why="test exit status 0"; }
if [ "$RC" != 0 ] || [ "$VERBOSE" = 1 ]; then
  echo "---- guest console ----"; cat "$LOG" 2>/dev/null || true
  [ -s "$RUN/qemu.out" ] && { echo "---- qemu ----"; cat "$RUN/qemu.out"; }
  echo "-----------------------"
fi
note "$why (VM ran ${SECONDS_RUN} s)"
exit "$RC"
