#!/bin/sh
# Plays patterns with the QORA player on a LAVA board and reports one test
# case per pattern, pass or fail, with the mean execute time of its loops as
# the measurement. With per-loop cases each pattern also gets a test set
# holding a case per loop. Needs only a POSIX shell and busybox.
#
# A pattern passes when the player exited 0 and printed its success verdict
# ("Verify pattern N times : success"), or printed that it compared nothing
# ("Run pattern N times : done") because no golden was given, unless -q true
# requires every pattern to compare. Anything else fails, with the reason
# printed on the console: a golden that did not load (goldens were given
# but nothing was compared, or the loader printed a golden error), a
# compare or command failure, a timeout, a kill, a pattern that built
# nothing. This is qora_report's rule for the same output (its verdicts
# pass and not_compared pass, not_compared only without --require-compare).
# A player that cannot be found ends the test run (lava-test-raise). With
# -e true a failed pattern also ends the test run after its case is
# reported, so that a health check marks the board bad (LAVA completes a job
# whose cases fail).
set -u

player=qora_player
patterns=Test
loops=1
options=
timeout=600
loop_cases=false
console=full
raise_on_fail=false
require_compare=false
out_dir=qora-results

usage() {
  cat >&2 <<USAGE
usage: $0 [-p player] [-f patterns] [-l loops] [-o player options]
          [-t timeout seconds] [-c true|false] [-C full|brief]
          [-e true|false] [-q true|false] [-r log dir]
  patterns: space-separated entries "pattern[:golden[,golden...]]",
            a pattern being a file or a built-in name (Test, MaxPower)
USAGE
  exit 2
}

while getopts p:f:l:o:t:c:C:e:q:r: opt; do
  case $opt in
    p) player=$OPTARG ;;
    f) patterns=$OPTARG ;;
    l) loops=$OPTARG ;;
    o) options=$OPTARG ;;
    t) timeout=$OPTARG ;;
    c) loop_cases=$OPTARG ;;
    C) console=$OPTARG ;;
    e) raise_on_fail=$OPTARG ;;
    q) require_compare=$OPTARG ;;
    r) out_dir=$OPTARG ;;
    *) usage ;;
  esac
done
is_count() { case $1 in ''|*[!0-9]*) return 1 ;; *) [ "$1" -ge 1 ] ;; esac; }
is_count "$loops" || usage
is_count "$timeout" || usage
case $loop_cases in true|false) ;; *) usage ;; esac
case $raise_on_fail in true|false) ;; *) usage ;; esac
case $require_compare in true|false) ;; *) usage ;; esac
case $console in full|brief) ;; *) usage ;; esac

# Kills the player ($1) after $timeout seconds, leaving the file $2 behind
# as the sign that it did; returns as soon as the player has ended.
watchdog() {
  waited=0
  while [ "$waited" -lt "$timeout" ]; do
    sleep 1
    kill -0 "$1" 2>/dev/null || return 0
    waited=$((waited + 1))
  done
  : >"$2"
  kill -TERM "$1" 2>/dev/null
  sleep 5
  kill -KILL "$1" 2>/dev/null
}

# Runs the player with the given arguments into the log $1; sets status.
play() {
  log=$1
  shift
  rm -f "$log.timeout"
  # shellcheck disable=SC2086 # the player command and options are word lists
  $player $options_all "$@" >"$log" 2>&1 </dev/null &
  pid=$!
  watchdog "$pid" "$log.timeout" >/dev/null 2>&1 &
  watcher=$!
  wait "$pid"
  status=$?
  kill "$watcher" 2>/dev/null
  wait "$watcher" 2>/dev/null
}

# Reads a player log into shell variables (numbers only): runs (loops
# started), failed_loop and command_failed (1-based loop, 0 for none),
# verified, not_compared, mean (mean execute time, empty when the log has
# none) and exec_<loop> for each loop with a time.
read_log() {
  eval "$(awk '
    /\] Run command/ { runs++ }
    /\] execute   = / {
      v = $0; sub(/.*\] execute   = /, "", v); sub(/\[us\].*/, "", v)
      t[runs] += v; timed[runs] = 1
    }
    /\] QORA loop [0-9]+ !! Compare golden Fail/ { failed = runs }
    /\] Command Fail!!/ { command = runs }
    /\] Verify pattern [0-9]+ times : success/ { verified = 1 }
    /\] Run pattern [0-9]+ times : done/ { done = 1 }
    END {
      printf "runs=%d failed_loop=%d command_failed=%d verified=%d not_compared=%d\n",
             runs, failed, command, verified, done
      n = 0; sum = 0
      for (i = 1; i <= runs; i++) if (i in timed) { printf "exec_%d=%d\n", i, t[i]; n++; sum += t[i] }
      if (n > 0) printf "mean=%.1f\n", sum / n; else print "mean="
    }' "$1")"
}

# The first loader line of a log (a line without the player's "[X:name:N] "
# prefix) saying that a golden named on the command line did not load; with
# $2 = 1 (nothing was compared) also a golden data line it could not scan.
# Trailing blanks are dropped before matching, as qora_report does.
golden_failure() {
  awk -v not_compared="$2" '
    /\[[IWED]:[A-Za-z_~][A-Za-z0-9_~]*:[0-9]+\] / { next }
    {
      line = $0; sub(/[ \t\r\f\v]+$/, "", line)
      if (line ~ /^(Golden file type: Fail|No pattern data|open file\(.*\.(hex|bin)\) error|load_golden_hex\(\):[0-9]+ get invalid out sz|Warning : len >= 120|Warning : read golden size|free golden\()/) {
        print line; found = 1; exit
      }
      if (scan == "" && line ~ /^load_golden_hex\(\):[0-9]+ sscanf fail/) scan = line
    }
    END { if (!found && not_compared == 1 && scan != "") print scan }' "$1"
}

# Decides a pattern's result and reason from the run and its log; whole=1
# when the result holds for every loop that ran (nothing was compared, or a
# golden did not load), not only for the last one.
judge() {
  goldens=$1
  log=$2
  whole=0
  ended=$((verified + not_compared))
  golden_line=$(golden_failure "$log" "$not_compared")
  if [ -e "$log.timeout" ]; then
    result=fail reason="timed out after $timeout s"
  elif [ "$status" -gt 128 ]; then
    result=fail reason="killed by signal $((status - 128))"
  elif [ "$ended" -gt 0 ] && [ $((failed_loop + command_failed)) -eq 0 ] && [ -n "$golden_line" ]; then
    result=fail reason="golden error: $golden_line" whole=1
  elif [ "$status" -eq 0 ] && [ "$verified" = 1 ]; then
    result=pass reason="verified $loops loops"
  elif [ "$status" -eq 0 ] && [ "$not_compared" = 1 ] && [ "$goldens" -gt 0 ]; then
    result=fail reason="golden error: nothing compared although $goldens golden file(s) were given" whole=1
  elif [ "$status" -eq 0 ] && [ "$not_compared" = 1 ] && [ "$require_compare" = true ]; then
    result=fail reason="nothing compared: no golden given, and every pattern must compare" whole=1
  elif [ "$status" -eq 0 ] && [ "$not_compared" = 1 ]; then
    result=pass reason="nothing compared: no golden given" whole=1
  elif [ "$failed_loop" -gt 0 ]; then
    result=fail reason="compare golden fail in loop $((failed_loop - 1))"
  elif [ "$command_failed" -gt 0 ]; then
    result=fail reason="command failed in loop $((command_failed - 1))"
  elif [ "$runs" -eq 0 ] && grep -q 'open file(' "$log"; then
    result=fail reason="pattern did not load"
  elif [ "$runs" -eq 0 ]; then
    result=fail reason="nothing ran (exit status $status)"
  else
    result=fail reason="exit status $status after $runs runs"
  fi
}

# The result of loop $1 (0-based) of a judged pattern.
loop_result() {
  if [ "$1" -ge "$runs" ]; then
    echo skip
  elif [ $(($1 + 1)) -eq "$runs" ] || [ "$whole" = 1 ]; then
    echo "$result"
  else
    echo pass
  fi
}

case_result() {
  if [ -n "$3" ]; then
    lava-test-case "$1" --result "$2" --measurement "$3" --units us
  else
    lava-test-case "$1" --result "$2"
  fi
}

# A test case name from a pattern, unique within this run.
case_name() {
  base=$(basename "$1")
  base=$(echo "${base%.*}" | sed 's/[^A-Za-z0-9_.-]/_/g')
  [ -n "$base" ] || base=pattern
  name=$base
  n=1
  while case " $used " in *" $name "*) true ;; *) false ;; esac; do
    n=$((n + 1))
    name=${base}_$n
  done
  used="$used $name"
}

# The player's output on the console; a last line without a line feed
# (the loader prints one) gets one, so the end line stands on its own.
show_log() {
  if [ "$console" = full ]; then
    cat "$1"
    [ -z "$(tail -c 1 "$1")" ] || echo
  else
    grep -E '\[[EW]:|\] Get pattern :|\] Verify pattern|\] Run pattern|open file\(' "$1"
  fi
}

if ! command -v "${player%% *}" >/dev/null 2>&1; then
  lava-test-raise "player not found: $player"
  exit 1
fi
mkdir -p "$out_dir" || exit 1
# Bit 2 of the debug mask prints each run's execute time, the measurement;
# the user's options come later and so win.
options_all="-d 5 -l $loops $options"
used=
for entry in $patterns; do
  pattern=${entry%%:*}
  set -- -f "$pattern"
  goldens=0
  if [ "$entry" != "$pattern" ]; then
    list=${entry#*:}
    old_ifs=$IFS
    IFS=,
    for golden in $list; do
      set -- "$@" -g "$golden"
      goldens=$((goldens + 1))
    done
    IFS=$old_ifs
  fi
  case_name "$pattern"
  log=$out_dir/$name.log
  echo "QORA-LAVA start case=$name pattern=$pattern goldens=$goldens loops=$loops"
  play "$log" "$@"
  show_log "$log"
  read_log "$log"
  judge "$goldens" "$log"
  echo "QORA-LAVA end case=$name exit=$status result=$result reason=$reason"
  case_result "$name" "$result" "$mean"
  if [ "$loop_cases" = true ]; then
    lava-test-set start "$name"
    i=0
    while [ "$i" -lt "$loops" ]; do
      eval "time=\${exec_$((i + 1)):-}"
      case_result "${name}_loop$i" "$(loop_result "$i")" "$time"
      i=$((i + 1))
    done
    lava-test-set stop
  fi
  if [ "$raise_on_fail" = true ] && [ "$result" = fail ]; then
    lava-test-raise "$name: $reason"
    exit 1
  fi
  i=1
  while [ "$i" -le "$runs" ]; do unset "exec_$i"; i=$((i + 1)); done
done
