# shellcheck shell=bash
# Shared by the benchmarks that run Tarn live (bench/live-routes, bench/desk-window): a private
# sound session, the desk service in it, playing applications with live routes, and the CPU a
# process used. Sourced (not run) from the repository's root by a script that sets `tarn` (the
# tarn program) and `work` (its scratch folder) and calls `stop_live_session` on its way out.

live_pids=()   # what these helpers started, stopped by stop_live_session (the daemon first)
daemon=""

# Starts a private sound session in the folder given and points this shell at it.
start_live_session() {
  export TARN_SOUND_SESSION_DIR=$1
  scripts/sound-session start >/dev/null
  eval "$(scripts/sound-session env)"
}

# Stops everything the helpers started, the sound session last.
stop_live_session() {
  local p
  if [ -n "$daemon" ]; then
    kill -TERM "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
    daemon=""
  fi
  for p in "${live_pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${live_pids[@]}"; do wait "$p" 2>/dev/null || true; done
  live_pids=()
  [ -n "${TARN_SOUND_SESSION_DIR:-}" ] && scripts/sound-session stop || true
}

# CPU time of a process, in seconds: the run time the scheduler accounts to each of its threads, in
# nanoseconds (utime and stime in /proc/PID/stat count 10 ms ticks, too coarse for one route).
cpu_seconds() {
  cat /proc/"$1"/task/*/schedstat | awk '{ ns += $1 } END { printf "%.6f\n", ns / 1e9 }'
}

# Wake-ups of a process: context switches of all its threads.
wakeups() {
  cat /proc/"$1"/task/*/status | awk '/voluntary_ctxt_switches/ { n += $2 } END { print n }'
}

now() { date +%s.%N; }

# A quiet stereo tone of the given length in seconds, so that many of them summed on one sink
# never clip or hide anything else.
write_tone() {
  sox -n -r 48000 -c 2 -b 16 "$1" synth "$2" sine 440 vol 0.005
}

# A ten-filter headphone correction profile, the kind a live route runs.
write_profile() {
  cat >"$1" <<'EOF'
{ "preampDb": -6.0, "filters": [
  {"shape": "lowShelf", "frequencyHz": 105, "gainDb": 4.5, "q": 0.7},
  {"shape": "peaking", "frequencyHz": 180, "gainDb": -2.1, "q": 1.2},
  {"shape": "peaking", "frequencyHz": 420, "gainDb": 1.4, "q": 1.5},
  {"shape": "peaking", "frequencyHz": 900, "gainDb": -1.8, "q": 2.0},
  {"shape": "peaking", "frequencyHz": 1800, "gainDb": 2.6, "q": 1.8},
  {"shape": "peaking", "frequencyHz": 3100, "gainDb": -3.2, "q": 3.0},
  {"shape": "peaking", "frequencyHz": 4600, "gainDb": 2.0, "q": 2.5},
  {"shape": "peaking", "frequencyHz": 6400, "gainDb": -4.0, "q": 4.0},
  {"shape": "peaking", "frequencyHz": 8800, "gainDb": 1.5, "q": 2.0},
  {"shape": "highShelf", "frequencyHz": 10000, "gainDb": -2.5, "q": 0.7} ] }
EOF
}

# How many applications are playing (their output running), as `tarn apps` sees them.
playing_count() {
  "$tarn" apps --json | python3 -c 'import json,sys; print(sum(1 for a in json.load(sys.stdin) if a["isRunningOutput"]))'
}

# Waits up to 10 s until at least N applications play; fails when they do not.
wait_for_playing() {
  local n=$1
  for _ in $(seq 100); do
    [ "$(playing_count)" -ge "$n" ] && return 0
    sleep 0.1
  done
  echo "$(basename "$0"): only $(playing_count) of $n applications play after 10 s" >&2
  return 1
}

# An application playing a file under an identity of its own (application.id), in the background.
play_as() {
  pw-play -P "{ application.id = \"$1\" application.name = \"$1\" }" "$2" >/dev/null 2>&1 &
  live_pids+=($!)
}

# Starts the desk service (`tarn daemon`, its stderr into the file given) in the configuration
# folders of $TARN_CONFIG_DIR and $XDG_DATA_HOME, and waits until it answers.
start_daemon() {
  "$tarn" daemon 2>"$1" &
  daemon=$!
  for _ in $(seq 100); do
    "$tarn" route list >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  echo "$(basename "$0"): the desk service did not answer within 10 s; see $1" >&2
  return 1
}

# A live route of the desk service for an application, with the profile given and ten bands set;
# prints its id.
add_live_route() {
  local app=$1 profile=$2 id b
  id=$("$tarn" route add "$app")
  "$tarn" route profile "$id" "$profile"
  for b in 0 1 2 3 4 5 6 7 8 9; do "$tarn" route band "$id" $b $(((b % 7) - 3)); done
  "$tarn" route mode "$id" on
  echo "$id"
}
