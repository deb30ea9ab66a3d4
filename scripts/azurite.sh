# Azurite, the local Azure Blob storage service, for the tests and the demo.
# Source this file; it defines:
#   azurite_install          npm-installs Azurite into build/azurite once
#                            (AZURITE_BIN, when set, names another one)
#   azurite_start FOLDER     starts it on a free loopback port with in-memory
#                            storage; sets AZURITE_PID and AZURITE_PORT
#                            (with AZURITE_TIME_LIMIT set, e.g. 4h, it ends by
#                            itself after that long; AZURITE_PID is then the
#                            pid of the `timeout` that runs it; with
#                            AZURITE_MEMORY_MB set, its in-memory store may
#                            hold that many MiB instead of half the machine's
#                            memory)
#   azurite_stop             stops it
#   azurite_connection NAME  the connection string of its development account
#                            for container NAME

AZURITE_VERSION=3.35.0

azurite_install() {
  if [ -z "${AZURITE_BIN:-}" ] && [ ! -x build/azurite/node_modules/.bin/azurite-blob ]; then
    echo "==== installing Azurite ${AZURITE_VERSION} into build/azurite"
    npm install --prefix build/azurite --no-audit --no-fund --loglevel=error "azurite@${AZURITE_VERSION}"
  fi
}

azurite_executable() {
  local bin="${AZURITE_BIN:-build/azurite}"
  [ -d "$bin" ] && bin="$bin/node_modules/.bin/azurite-blob"
  echo "$bin"
}

# True when nothing listens on the loopback port.
port_is_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# A loopback port nothing listens on, drawn at random below the kernel's
# range of outgoing ports, so that several Azurites started at once (test
# runs side by side on one machine) seldom try the same one.
azurite_free_port() {
  local port
  for _ in $(seq 1 100); do
    port=$((20000 + RANDOM % 12000))
    port_is_free "$port" && { echo "$port"; return 0; }
  done
  return 1
}

# Another process may take the port between the check and Azurite's start;
# Azurite then ends at once, and it is started again on another port.
azurite_start() {
  local folder executable port limit=() memory=()
  folder="$(realpath -m "$1")"
  executable="$(realpath "$(azurite_executable)")"
  mkdir -p "$folder"
  [ -n "${AZURITE_TIME_LIMIT:-}" ] && limit=(timeout "$AZURITE_TIME_LIMIT")
  [ -n "${AZURITE_MEMORY_MB:-}" ] && memory=(--extentMemoryLimit "$AZURITE_MEMORY_MB")
  for _ in 1 2 3; do
    port=$(azurite_free_port) || break
    (cd "$folder" && exec "${limit[@]}" "$executable" --blobHost 127.0.0.1 --blobPort "$port" \
      --inMemoryPersistence "${memory[@]}" --disableTelemetry --skipApiVersionCheck --silent) </dev/null >"$folder/azurite.log" 2>&1 &
    AZURITE_PID=$!
    AZURITE_PORT=$port
    for _ in $(seq 1 600); do
      kill -0 "$AZURITE_PID" 2>/dev/null || break
      if ! port_is_free "$port"; then
        kill -0 "$AZURITE_PID" 2>/dev/null && return 0
        break
      fi
      sleep 0.1
    done
    azurite_stop
  done
  echo "Azurite did not start; see $folder/azurite.log" >&2
  return 1
}

azurite_stop() {
  if [ -n "${AZURITE_PID:-}" ]; then
    kill "$AZURITE_PID" 2>/dev/null && wait "$AZURITE_PID" 2>/dev/null
    AZURITE_PID=
  fi
  return 0
}

azurite_connection() {
  echo "DefaultEndpointsProtocol=http;AccountName=devstoreaccount1;AccountKey=Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==;BlobEndpoint=http://127.0.0.1:${AZURITE_PORT}/devstoreaccount1;Container=$1"
}
