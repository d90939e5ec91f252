#!/usr/bin/env bash
# A throw-away PostgreSQL server for the cloud's tests and for trying devices
# on several machines by hand, in a folder of its own:
#   scripts/pg-server.sh start DIR [PORT]   prints the connection URL
#   scripts/pg-server.sh stop DIR
# The server refuses to run as root, so as root it runs as `nobody`. It
# listens on 127.0.0.1 only and asks for passwords there; the superuser
# `tarnwell` has a random one, kept in DIR/pgpass for libpq
# (export PGPASSFILE=DIR/pgpass). It holds nothing but test data, and is
# deleted with DIR.
set -euo pipefail

bin="$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)"
[ -x "$bin/initdb" ] || { echo "pg-server.sh: PostgreSQL is not installed (apt-get install postgresql)" >&2; exit 1; }

as_server() {
  if [ "$(id -u)" -eq 0 ]; then
    setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"
  else
    "$@"
  fi
}

command="${1:-}"
dir="${2:-}"
[ -n "$dir" ] || { echo "usage: pg-server.sh start|stop DIR [PORT]" >&2; exit 2; }

case "$command" in
  start)
    port="${3:-55432}"
    mkdir -p "$dir"
    dir="$(cd "$dir" && pwd)"
    if [ "$(id -u)" -eq 0 ]; then
      chown nobody:nogroup "$dir"
      as_server test -w "$dir" || {
        echo "pg-server.sh: $dir cannot be reached by nobody; choose a folder whose parents anyone may enter (under /tmp, say)" >&2
        exit 1
      }
    fi
    if [ ! -f "$dir/data/PG_VERSION" ]; then
      password="$(head -c 18 /dev/urandom | base64 | tr '+/' 'xy')"
      printf '%s\n' "$password" >"$dir/password"
      [ "$(id -u)" -eq 0 ] && chown nobody:nogroup "$dir/password"
      as_server "$bin/initdb" -D "$dir/data" -U tarnwell --auth-local=trust --auth-host=scram-sha-256 \
        --pwfile="$dir/password" -E UTF8 --locale=C.UTF-8 >"$dir/initdb.log"
      rm -f "$dir/password"
      printf '127.0.0.1:%s:*:tarnwell:%s\n' "$port" "$password" >"$dir/pgpass"
      chmod 600 "$dir/pgpass"
    fi
    as_server "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w \
      -o "-k $dir -p $port -c listen_addresses=127.0.0.1" start >/dev/null
    echo "postgresql://tarnwell@127.0.0.1:$port/postgres"
    ;;
  stop)
    as_server "$bin/pg_ctl" -D "$dir/data" -m fast -w stop >/dev/null
    ;;
  *)
    echo "pg-server.sh: unknown command \"$command\" (start or stop)" >&2
    exit 2
    ;;
esac
