#!/usr/bin/env bash
# End to end on an emulated arm64 board: boots Debian's arm64 kernel under
# qemu-system-aarch64 (TCG) with a busybox ramdisk holding the arm64
# packages' player, library and engine model, runs one lava-run job with
# the project's test definition over five patterns (built-in Test and
# MaxPower, a wrong golden, a missing golden file, a missing pattern file;
# three loops, per-loop cases), checks every case result and measurement in
# the job log against the expected table, then reads the job log with
# qora_report summary. The kernel, busybox and LAVA's device-type templates
# are downloaded once into /var/cache/qora-lava-test.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
# Debian's Python, with the modules the packages installed (yaml, jinja2).
python=/usr/bin/python3
# The cross toolchain too: the arm64 architecture, and the C and C++
# runtime the ramdisk takes from it.
QORA_CROSS=1 QORA_LAVA_DEPS=1 tools/install-deps.sh
deb=build-aarch64/deb
ls "$deb"/qora-player_*_arm64.deb >/dev/null 2>&1 || tools/cross-test.sh

# The board's pieces, kept between runs: the kernel and the four modules of
# its network, busybox, LAVA's device-type templates.
cache=/var/cache/qora-lava-test
modules="virtio_mmio failover net_failover virtio_net"
if [ ! -e "$cache/ready" ]; then
  rm -rf "$cache"
  mkdir -p "$cache/download" "$cache/modules"
  chown _apt "$cache/download" 2>/dev/null || true  # apt downloads as _apt where it can
  download() {
    kernel=$(apt-cache depends linux-image-arm64:arm64 | awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
    (cd "$cache/download" && apt-get download -q "$kernel" busybox-static:arm64 lava-server)
  }
  download || { apt-get update -qq && download; }  # package lists older than the archive
  for p in "$cache"/download/*.deb; do dpkg-deb -x "$p" "$cache/download/root"; done
  root=$cache/download/root
  cp "$(echo "$root"/boot/vmlinuz-*)" "$cache/vmlinuz"
  for m in $modules; do cp "$(find "$root/lib/modules" -name "$m.ko")" "$cache/modules/"; done
  cp "$root/bin/busybox" "$cache/busybox"
  cp -r "$root/usr/share/lava-server/device-types" "$cache/device-types"
  rm -rf "$cache/download"
  touch "$cache/ready"
fi
templates=$cache/device-types

work=$src/build-lava
rm -rf "$work"
mkdir -p "$work/board" "$work/ramdisk"

# The ramdisk: busybox, the network modules, the C and C++ runtime, the
# packages' files and the patterns the job plays.
rd=$work/ramdisk
mkdir -p "$rd"/{bin,dev,proc,sys,root,tmp,lib/modules,opt/qora}
cp "$cache/busybox" "$rd/bin/busybox"
install -m 755 lava/board/init "$rd/init"
cp "$cache"/modules/*.ko "$rd/lib/modules/"
mkdir -p "$rd/lib/aarch64-linux-gnu"
for l in ld-linux-aarch64.so.1 libc.so.6 libm.so.6 libstdc++.so.6 libgcc_s.so.1; do
  cp -L "/usr/aarch64-linux-gnu/lib/$l" "$rd/lib/aarch64-linux-gnu/"
done
ln -s aarch64-linux-gnu/ld-linux-aarch64.so.1 "$rd/lib/ld-linux-aarch64.so.1"
for p in "$deb"/*_arm64.deb; do
  case $p in *-dbgsym_*|*-dev_*) ;; *) dpkg-deb -x "$p" "$rd" ;; esac
done
rm -rf "$rd/usr/share"
qemu-aarch64 -L /usr/aarch64-linux-gnu build-aarch64/qora_pattern_author "$work/patterns" >/dev/null
cp "$work/patterns/conv_demo/pattern.hex" "$work/patterns/conv_demo/golden.hex" "$rd/opt/qora/"
# A wrong golden: the last digit of its first data line changed.
awk '!done && /^[0-9a-f]+_[0-9a-f]+_/ { c = substr($0, length($0), 1); $0 = substr($0, 1, length($0) - 1) (c == "0" ? "1" : "0"); done = 1 } 1' \
  "$work/patterns/conv_demo/golden.hex" >"$rd/opt/qora/wrong_golden.hex"
(cd "$rd" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/board/ramdisk.cpio.gz"
cp "$cache/vmlinuz" "$work/board/vmlinuz"

# The test definition as LAVA fetches it: a git repository of lava/.
git init -q "$work/testdef"
cp -r lava "$work/testdef/"
git -C "$work/testdef" add lava
git -C "$work/testdef" -c user.name=ci -c user.email=ci@localhost commit -qm "test definition"

# LAVA's HTTP download directory, served on loopback only; the board
# reaches it as 10.0.2.2 through qemu's user network.
port=$($python -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
mkdir -p /var/lib/lava/dispatcher/tmp
$python -m http.server --bind 127.0.0.1 --directory /var/lib/lava/dispatcher "$port" >"$work/http.log" 2>&1 &
http_pid=$!
trap 'kill $http_pid' EXIT
echo "dispatcher_http_ip: 10.0.2.2:$port" >"$work/dispatcher.yaml"

$python - "$templates" "$work" <<'PY'
import sys, jinja2, yaml
templates, work = sys.argv[1:]
env = jinja2.Environment(loader=jinja2.FileSystemLoader(["lava/devices", templates]),
                         autoescape=False, trim_blocks=True)
device = env.get_template("qora-qemu-ci.jinja2").render().replace("@BOARD_DIR@", work + "/board")
open(work + "/device.yaml", "w").write(device)
job = yaml.safe_load(open("lava/jobs/serial-board.yaml"))
job["device_type"] = "qemu-aarch64"
job["timeouts"].update(job={"minutes": 8}, action={"minutes": 6})
for action in job["actions"]:
    if "boot" in action:
        action["boot"]["reset"] = False  # connecting starts the board
        del action["boot"]["auto_login"]  # the ramdisk's shell needs no login
    if "test" in action:
        action["test"]["timeout"] = {"minutes": 6}
        d = action["test"]["definitions"][0]
        d["repository"] = work + "/testdef"
        d["parameters"] = {
            "PLAYER": "qora_player_model", "LOOPS": "3", "LOOP_CASES": "true", "TIMEOUT": "120",
            "PATTERNS": "Test MaxPower /opt/qora/pattern.hex:/opt/qora/golden.hex"
                        " /opt/qora/pattern.hex:/opt/qora/wrong_golden.hex"
                        " /opt/qora/pattern.hex:/opt/qora/missing_golden.hex /opt/qora/missing.hex",
        }
yaml.safe_dump(job, open(work + "/job.yaml", "w"), sort_keys=False)
PY

# The other job templates against the example device dictionaries: they
# validate (telnet and pduclient stand-ins, as nothing is connected).
mkdir -p "$work/stand-ins"
for c in telnet pduclient; do printf '#!/bin/sh\n' >"$work/stand-ins/$c"; chmod +x "$work/stand-ins/$c"; done
for j in serial-board:qora-board-01 health-check:qora-board-01 ssh-board:ssh; do
  $python - "$templates" "${j#*:}" >"$work/${j%%:*}-device.yaml" <<'PY'
import sys, jinja2
env = jinja2.Environment(loader=jinja2.FileSystemLoader(["lava/devices", sys.argv[1]]),
                         autoescape=False, trim_blocks=True)
print(env.from_string("{% extends '" + sys.argv[2] + ".jinja2' %}{% set ssh_host = 'qora-board' %}").render())
PY
  PATH=$work/stand-ins:$PATH lava-run --validate --job-id 0 --output-dir "$work/validate" \
    --device "$work/${j%%:*}-device.yaml" "lava/jobs/${j%%:*}.yaml" 2>"$work/${j%%:*}-validate.log" || true
  grep -q '"msg": {"case": "job", "definition": "lava", "result": "pass"}' "$work/${j%%:*}-validate.log" ||
    { echo "lava-test: lava/jobs/${j%%:*}.yaml does not validate; see $work/${j%%:*}-validate.log"; exit 1; }
done

start=$(date +%s)
lava-run --job-id 1 --output-dir "$work/out" --device "$work/device.yaml" \
  --dispatcher "$work/dispatcher.yaml" "$work/job.yaml" 2>"$work/job.log" || true
echo "lava-run: $(($(date +%s) - start)) s"

# Every case the job recorded, against what each pattern must give: result,
# whether it carries an execute time, and the reason the run script printed.
$python - "$work/job.log" <<'PY'
import re, sys, yaml
expected = {  # case: (result, measured, reason), then the loops' (result, measured)
    "Test": ("pass", True, "verified 3 loops", [("pass", True)] * 3),
    "MaxPower": ("pass", True, "verified 3 loops", [("pass", True)] * 3),
    "pattern": ("pass", True, "verified 3 loops", [("pass", True)] * 3),
    "pattern_2": ("fail", True, "compare golden fail in loop 0", [("fail", True), ("skip", False), ("skip", False)]),
    "pattern_3": ("fail", True, "golden error: open file(/opt/qora/missing_golden.hex) error",
                  [("fail", True)] * 3),
    "missing": ("fail", False, "pattern did not load", [("skip", False)] * 3),
}
want = {}
for case, (result, measured, reason, loops) in expected.items():
    want[(None, case)] = (result, measured)
    for i, loop in enumerate(loops):
        want[(case, f"{case}_loop{i}")] = loop
got, reasons = {}, {}
for line in open(sys.argv[1]):
    record = yaml.load(line.removeprefix("- "), Loader=yaml.CSafeLoader)
    msg = record["msg"]
    if record["lvl"] == "results" and msg.get("definition") == "0_qora-player":
        measurement = msg.get("measurement")
        if measurement is not None:
            assert float(measurement) > 0 and msg["units"] == "us", msg
        got[(msg.get("set"), msg["case"])] = (msg["result"], measurement is not None)
    elif record["lvl"] == "target" and isinstance(msg, str):
        m = re.match(r"QORA-LAVA end case=(\S+) exit=\d+ result=\w+ reason=(.*)", msg)
        if m:
            reasons[m.group(1)] = m.group(2)
print(f"{'set':<10} {'case':<18} result  measured")
for (test_set, case), (result, measured) in sorted(got.items(), key=lambda kv: (kv[0][0] or kv[0][1], kv[0][0] or "")):
    print(f"{test_set or '-':<10} {case:<18} {result:<7} {'yes' if measured else 'no'}")
bad = [f"{key}: got {got.get(key)}, want {value}" for key, value in want.items() if got.get(key) != value]
bad += [f"{key}: not expected" for key in got if key not in want]
bad += [f"{case}: reason {reasons.get(case)!r}, want {e[2]!r}" for case, e in expected.items() if reasons.get(case) != e[2]]
if bad:
    sys.exit("lava-test: wrong cases:\n  " + "\n  ".join(bad))
print(f"lava-test: all {len(want)} cases as expected")
PY

# The report tool on the job log: one run per pattern, the same verdicts.
set +e
PYTHONPATH=tools/qora_report $python -m qora_report summary "$work/job.log" --json "$work/summary.json" --junit "$work/junit.xml"
status=$?
set -e
$python - "$work/summary.json" "$status" <<'PY'
import json, sys
verdicts = {log["lava"]["case"]: (log["verdict"], log["exit_status"]) for log in json.load(open(sys.argv[1]))["logs"]}
want = {"Test": ("pass", 0), "MaxPower": ("pass", 0), "pattern": ("pass", 0), "pattern_2": ("fail", 1),
        "pattern_3": ("golden_error", 0), "missing": ("error", 1)}
if verdicts != want or sys.argv[2] != "1":
    sys.exit(f"lava-test: qora_report read {verdicts} (exit {sys.argv[2]}), want {want} (exit 1)")
print("lava-test: qora_report summary agrees")
PY
