#!/bin/sh
# Stands in for qora_player in the LAVA run script's tests: what it prints
# and how it ends depends on the pattern's file name.
loops=1 debug=1 pattern= goldens=
while [ $# -gt 0 ]; do
  case $1 in
    -l) loops=$2; shift ;;
    -d) debug=$2; shift ;;
    -f) pattern=$2; shift ;;
    -g) goldens="$goldens $2"; shift ;;
  esac
  shift
done
echo "$pattern$goldens" >>"${FAKE_PLAYER_CALLS:-/dev/null}"
name=$(basename "$pattern")
# The loader's message for a missing pattern ends without a line feed.
case $name in missing*) printf 'open file(%s) \\n' "$pattern"; exit 1 ;; esac
echo "[I:BuildCmd:12] Get pattern : $name"
for g in $goldens; do
  case $g in
    missing*) echo "open file($g) error" ;;
    *.txt) echo "Golden file type: Fail" ;;
  esac
done
case $name in
  oversize*) echo "Warning : read golden size(0x40) > output size(0x20)" ;;
  scan*) echo "load_golden_hex():65 sscanf fail" ;;
esac

run() {  # one loop: $1 is its 0-based number
  echo "[I:RunCmd:301] Run command"
  case $name in die*) if [ "$1" = 1 ]; then kill -SEGV $$; fi ;; esac  # before its times
  if [ $((debug & 4)) -ne 0 ]; then
    echo "[D:RunCmd:330] execute   = $((100 + $1))[us]"
    echo "[D:RunCmd:331] prepare   = 7[us]"
  fi
}

i=0
while [ "$i" -lt "$loops" ]; do
  run "$i"
  case $name in
    hang*) exec sleep 600 ;;
    deaf*) trap '' TERM; exec sleep 600 ;;
    fail*) if [ "$i" = 1 ]; then echo "[W:Execute:77] QORA loop $i !! Compare golden Fail !!"; exit 1; fi ;;
    hup*) kill -HUP $$ ;;
    cmdfail*) echo "[E:RunCmd:350] Command Fail!! (-5)"; exit 1 ;;
  esac
  i=$((i + 1))
done
case $name in
  plain*|nogolden*|typo*|scan_done*) echo "[I:Execute:90] Run pattern $loops times : done (doesn't compare golden)" ;;
  *) echo "[I:Execute:88] Verify pattern $loops times : success" ;;
esac
case $name in crash*) exit 1 ;; esac
exit 0
