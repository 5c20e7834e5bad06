# Shell helpers to run the PLC simulator (source this file; bash).
#
#   start_plcsim EXE [plcsim options...]
#       starts EXE with the options, --port-file in a new temporary folder and --udp-port 0
#       (unless the options name a UDP port: simulators never share one), waits (at most
#       PLCSIM_START_TIMEOUT seconds, default 5) for the port file and sets
#         PLCSIM_PID            its process id
#         PLCSIM_PORT           its ADS (AMS/TCP) port
#         PLCSIM_CONTROL_PORT   its control port (0 without --control)
#         PLCSIM_NETID          its AMS Net ID
#         PLCSIM_UDP_PORT       the port of its UDP service (device info, add route; 0: off)
#         PLCSIM_DIR            the temporary folder (its stdout is in $PLCSIM_DIR/stdout)
#       Returns 1 with a message on stderr when plcsim ends first or writes no file in time
#       (it is stopped then).
#   stop_plcsim [SECONDS]
#       SIGTERM to PLCSIM_PID, at most SECONDS (default 5) to end, then SIGKILL; returns
#       plcsim's exit status (0 after a clean stop) and removes PLCSIM_DIR.
#   plcsim_ctl COMMAND
#       one line to the control port, prints the reply line ("ok ..." / "err ...").

PLCSIM_PID=
PLCSIM_PORT=
PLCSIM_CONTROL_PORT=
PLCSIM_NETID=
PLCSIM_UDP_PORT=
PLCSIM_DIR=

start_plcsim() {
  local exe=$1
  shift
  if [[ -n $PLCSIM_PID ]]; then
    echo "start_plcsim: plcsim (pid $PLCSIM_PID) is already running" >&2
    return 1
  fi
  local want_control=0 udp=(--udp-port 0) a
  for a in "$@"; do
    [[ $a == --control ]] && want_control=1
    [[ $a == --udp-port ]] && udp=()
  done
  PLCSIM_DIR=$(mktemp -d "${TMPDIR:-/tmp}/plcsim.XXXXXX")
  local ports=$PLCSIM_DIR/ports
  "$exe" "$@" "${udp[@]}" --port-file "$ports" >"$PLCSIM_DIR/stdout" </dev/null &
  PLCSIM_PID=$!
  local steps=$(( ${PLCSIM_START_TIMEOUT:-5} * 20 )) i
  for ((i = 0; i < steps; i++)); do
    if [[ -f $ports ]]; then
      PLCSIM_PORT=$(sed -n 's/^ads_port=//p' "$ports")
      PLCSIM_CONTROL_PORT=$(sed -n 's/^control_port=//p' "$ports")
      PLCSIM_NETID=$(sed -n 's/^netid=//p' "$ports")
      PLCSIM_UDP_PORT=$(sed -n 's/^udp_port=//p' "$ports")
      if [[ -n $PLCSIM_PORT && $PLCSIM_PORT != 0 && ($want_control == 0 || ${PLCSIM_CONTROL_PORT:-0} != 0) ]]; then
        return 0
      fi
    fi
    if ! kill -0 "$PLCSIM_PID" 2>/dev/null; then
      local status=0
      wait "$PLCSIM_PID" 2>/dev/null || status=$?
      echo "start_plcsim: $exe ended (status $status) before writing its port file" >&2
      PLCSIM_PID=
      rm -rf "$PLCSIM_DIR"
      PLCSIM_DIR=
      return 1
    fi
    sleep 0.05
  done
  echo "start_plcsim: $exe wrote no port file within ${PLCSIM_START_TIMEOUT:-5} s" >&2
  stop_plcsim 2 || true
  return 1
}

stop_plcsim() {
  local seconds=${1:-5} status=0 i
  if [[ -n $PLCSIM_PID ]]; then
    local pid=$PLCSIM_PID
    PLCSIM_PID=
    kill -TERM "$pid" 2>/dev/null || true
    for ((i = 0; i < seconds * 20; i++)); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.05
    done
    if kill -0 "$pid" 2>/dev/null; then
      echo "stop_plcsim: plcsim (pid $pid) did not stop on SIGTERM within $seconds s; killing it" >&2
      kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || status=$?
  fi
  [[ -n $PLCSIM_DIR ]] && rm -rf "$PLCSIM_DIR"
  PLCSIM_DIR=
  return "$status"
}

plcsim_ctl() {
  local reply=
  exec 3<>"/dev/tcp/127.0.0.1/$PLCSIM_CONTROL_PORT" || return 1
  printf '%s\n' "$1" >&3
  read -r -t 3 reply <&3 || true
  exec 3>&-
  printf '%s\n' "$reply"
}
