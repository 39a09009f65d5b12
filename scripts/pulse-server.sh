#!/usr/bin/env bash
# A private PulseAudio server with a null sink, for device tests and the demo
# on machines without sound hardware.
#
#   scripts/pulse-server.sh start DIR [RATE]  starts it; prints the client
#                                             environment to source (also in DIR/env)
#   scripts/pulse-server.sh stop DIR          stops it
#
# The sink "woodshed_sink" (float32, stereo, RATE, default 48000) is the
# default sink and its monitor the default source. A silent keep-alive stream
# keeps the sink rendering in small blocks (an idle null sink renders in
# blocks of up to 2 s) and pins its rate.
set -euo pipefail

cmd=${1:?start|stop}
dir=${2:?directory}
rate=${3:-48000}

stop_pid() {  # stop a process; a zombie counts as gone
  local pid=$1
  kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || return 0
    [ "$(ps -o stat= -p "$pid" 2>/dev/null | cut -c1)" = Z ] && return 0
    sleep 0.1
  done
  kill -9 "$pid" 2>/dev/null || true
}

case $cmd in
start)
  mkdir -p "$dir/home" "$dir/runtime"
  chmod 700 "$dir/runtime"
  dir=$(cd "$dir" && pwd)
  printf 'autospawn = no\n' > "$dir/client.conf"
  cat > "$dir/server.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/runtime/native
PA
  export HOME="$dir/home" XDG_RUNTIME_DIR="$dir/runtime"
  export PULSE_SERVER="unix:$dir/runtime/native" PULSE_CLIENTCONFIG="$dir/client.conf"
  # Under a session manager pulseaudio may be asked to register; -n and our
  # own script keep it minimal. As root it warns and runs.
  pulseaudio -n -F "$dir/server.pa" --daemonize=no --use-pid-file=no --exit-idle-time=-1 \
    --disallow-exit --log-target=file:"$dir/pulse.log" --log-level=notice \
    >/dev/null 2>&1 &
  echo $! > "$dir/pulse.pid"
  for _ in $(seq 100); do
    pactl info >/dev/null 2>&1 && break
    sleep 0.1
  done
  pactl info >/dev/null 2>&1 || { echo "pulse-server: server did not answer" >&2; exit 1; }
  pactl load-module module-always-sink >/dev/null
  pactl load-module module-null-sink sink_name=woodshed_sink rate="$rate" channels=2 \
    format=float32le sink_properties=device.description=Woodshed_null_sink >/dev/null
  pactl set-default-sink woodshed_sink
  pactl set-default-source woodshed_sink.monitor
  pacat --playback --raw --format=float32le --rate="$rate" --channels=2 --latency-msec=50 \
    --device=woodshed_sink </dev/zero >/dev/null 2>&1 &
  echo $! > "$dir/keepalive.pid"
  cat > "$dir/env" <<ENV
export XDG_RUNTIME_DIR='$dir/runtime'
export PULSE_SERVER='unix:$dir/runtime/native'
export PULSE_CLIENTCONFIG='$dir/client.conf'
ENV
  cat "$dir/env"
  ;;
stop)
  [ -f "$dir/keepalive.pid" ] && stop_pid "$(cat "$dir/keepalive.pid")"
  [ -f "$dir/pulse.pid" ] && stop_pid "$(cat "$dir/pulse.pid")"
  rm -f "$dir/keepalive.pid" "$dir/pulse.pid"
  ;;
*) echo "usage: $0 start|stop DIR [RATE]" >&2; exit 2 ;;
esac
