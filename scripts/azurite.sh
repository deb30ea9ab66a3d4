# Azurite, the local Azure Blob storage service, for the tests and the demo.
# Source this file; it defines:
#   azurite_install          npm-installs Azurite into build/azurite once
#                            (AZURITE_BIN, when set, names another one)
#   azurite_start FOLDER     starts it on a free loopback port with in-memory
#                            storage; sets AZURITE_PID and AZURITE_PORT
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

azurite_start() {
  local folder port executable
  folder="$(realpath -m "$1")"
  executable="$(realpath "$(azurite_executable)")"
  mkdir -p "$folder"
  for port in $(seq 10000 10100); do
    port_is_free "$port" && break
  done
  (cd "$folder" && exec "$executable" --blobHost 127.0.0.1 --blobPort "$port" \
    --inMemoryPersistence --disableTelemetry --skipApiVersionCheck --silent >"$folder/azurite.log" 2>&1) &
  AZURITE_PID=$!
  AZURITE_PORT=$port
  for _ in $(seq 1 300); do
    port_is_free "$port" || return 0
    kill -0 "$AZURITE_PID" 2>/dev/null || break
    sleep 0.1
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
