#!/usr/bin/env bash
# Web benchmarks of `pelkohost serve`, each against a baseline measured in
# the same run, as the median of several runs:
#   - requests a second against nginx with one worker, same files (1 KB and
#     1 MB), same wrk settings, keep-alive; over HTTP and over HTTPS with the
#     same certificate;
#   - WebSocket echo against a Node.js ws echo server, the same Node.js
#     client driving both: small text round trips a second, and MB a second
#     of 1 MB binary messages.
# Usage: bench/web_bench.sh [BUILD_DIR] [RUNS] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-3}
secs=${3:-3}
pelkohost=$build/host/pelkohost
[ -x "$pelkohost" ] || { echo "build first: $pelkohost is missing" >&2; exit 1; }
for tool in wrk nginx node certtool; do
  command -v $tool >/dev/null || { echo "web_bench needs $tool (scripts/deps.sh installs it)" >&2; exit 1; }
done

work=$(mktemp -d /tmp/pelkowebbench.XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -INT "$p" 2>/dev/null || true; done
  [ -f "$work/nginx.pid" ] && kill "$(cat "$work/nginx.pid")" 2>/dev/null || true
  sleep 0.3
  rm -rf "$work"
}
trap cleanup EXIT

chmod 755 "$work"
mkdir -p "$work/www"
head -c 1024 /dev/urandom > "$work/www/1k.bin"
head -c 1048576 /dev/urandom > "$work/www/1m.bin"
chmod -R a+rX "$work/www"
(cd "$work" &&
  printf 'cn = "localhost"\ndns_name = "localhost"\nip_address = "127.0.0.1"\ntls_www_server\nsigning_key\nencryption_key\nexpiration_days = 2\n' > srv.tmpl &&
  certtool --generate-privkey --key-type=ecdsa --no-text --outfile srv.key &&
  certtool --generate-self-signed --no-text --load-privkey srv.key --template srv.tmpl --outfile srv.pem &&
  chmod a+r srv.key srv.pem) >/dev/null 2>&1

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

nginx_start() {  # PORT SSL
  local listen="listen 127.0.0.1:$1"
  local ssl=""
  if [ "$2" = 1 ]; then listen="$listen ssl"; ssl="ssl_certificate $work/srv.pem; ssl_certificate_key $work/srv.key;"; fi
  cat > "$work/nginx.conf" <<EOF
worker_processes 1;
pid $work/nginx.pid;
error_log $work/nginx.err;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  keepalive_requests 1000000;
  client_body_temp_path $work/tmp; proxy_temp_path $work/tmp; fastcgi_temp_path $work/tmp;
  uwsgi_temp_path $work/tmp; scgi_temp_path $work/tmp;
  server { $listen; $ssl root $work/www; }
}
EOF
  mkdir -p "$work/tmp"
  nginx -c "$work/nginx.conf" -p "$work"
  sleep 0.3
}
nginx_stop() { kill "$(cat "$work/nginx.pid")"; sleep 0.3; rm -f "$work/nginx.pid"; }

serve_start() {  # PORT [serve options]
  local port=$1; shift
  "$pelkohost" serve "$work/www" --port "$port" "$@" > /dev/null 2>&1 &
  pids+=($!)
  sleep 0.5
}
serve_stop() { kill -INT "${pids[-1]}"; wait "${pids[-1]}" 2>/dev/null || true; unset 'pids[-1]'; }

rps() {  # URL -> requests a second
  # Answers that are not 2xx would make a fast baseline of nothing: they fail the run.
  local out; out=$(wrk -t2 -c50 -d"${secs}s" "$1" 2>/dev/null)
  if grep -q "Non-2xx" <<< "$out"; then echo "non-2xx answers from $1" >&2; exit 1; fi
  awk '/Requests\/sec/ {print $2}' <<< "$out"
}
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}'; }

echo "web benchmarks: $runs runs of ${secs}s each, medians"
printf '%-28s %14s %14s %7s\n' "exchange" "pelkohost" "baseline" "ratio"
for scheme in http https; do
  ssl=0; opts=()
  [ $scheme = https ] && { ssl=1; opts=(--cert "$work/srv.pem" --key "$work/srv.key"); }
  for file in 1k.bin 1m.bin; do
    lib=(); base=()
    for _ in $(seq "$runs"); do
      p=$(free_port); serve_start "$p" "${opts[@]}"; lib+=("$(rps "$scheme://127.0.0.1:$p/$file")"); serve_stop
      p=$(free_port); nginx_start "$p" $ssl; base+=("$(rps "$scheme://127.0.0.1:$p/$file")"); nginx_stop
    done
    l=$(printf '%s\n' "${lib[@]}" | median); b=$(printf '%s\n' "${base[@]}" | median)
    printf '%-28s %14s %14s %7s\n' "$scheme $file req/s (nginx)" "$l" "$b" "$(ratio "$l" "$b")"
  done
done

rtt=(); mbps=(); nrtt=(); nmbps=()
for _ in $(seq "$runs"); do
  p=$(free_port); serve_start "$p"
  read -r _ r _ m < <(node bench/ws_client.js "ws://127.0.0.1:$p/echo" "$secs"); rtt+=("$r"); mbps+=("$m")
  serve_stop
  p=$(free_port); node bench/ws_echo.js "$p" > /dev/null & pids+=($!); sleep 0.5
  read -r _ r _ m < <(node bench/ws_client.js "ws://127.0.0.1:$p/echo" "$secs"); nrtt+=("$r"); nmbps+=("$m")
  kill "${pids[-1]}"; unset 'pids[-1]'
done
l=$(printf '%s\n' "${rtt[@]}" | median); b=$(printf '%s\n' "${nrtt[@]}" | median)
printf '%-28s %14s %14s %7s\n' "ws round trips/s (node)" "$l" "$b" "$(ratio "$l" "$b")"
l=$(printf '%s\n' "${mbps[@]}" | median); b=$(printf '%s\n' "${nmbps[@]}" | median)
printf '%-28s %14s %14s %7s\n' "ws 1 MB messages MB/s (node)" "$l" "$b" "$(ratio "$l" "$b")"
