#!/usr/bin/env bash
# Installs every Debian package that building, testing and benchmarking Veskan needs.
# Idempotent: when everything is present it does nothing, and it refreshes the package
# lists only when something has to be installed.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  # toolchain
  build-essential cmake pkg-config git
  # library dependencies
  libicu-dev libxerces-c-dev librdf0-dev libraptor2-dev librasqal3-dev libssl-dev zlib1g-dev
  libboost-dev libboost-thread-dev libboost-filesystem-dev libboost-date-time-dev
  libcrypto++-dev libtinyxml-dev libcurl4-gnutls-dev libsqlite3-dev libgmp-dev
  # tests, benchmarks, fuzzing, sanitizers, formatting
  libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev libfuzzer-14-dev clang-format
  # load tests and browser tests; the TLS tests' peer (openssl s_client)
  wrk curl openssl chromium
  python3  # the HTTP client tests' peer servers (tests/client/peer.py) and the bench scripts
  # peer servers for the HTTP benchmark (bench/http)
  libmicrohttpd-dev libpoco-dev nginx
  libwebsocketpp-dev  # peer server of the WebSocket benchmark (bench/ws); Beast is in libboost-dev
  # the XPath engine's reference: xmllint re-generates the differential corpus, libxml2 is the
  # benchmark's peer
  libxml2-utils libxml2-dev
  # the RDF and SPARQL reference tools (rapper, roqet) of the graph tests and benchmark
  raptor2-utils rasqal-utils
  # the Debian packages: dpkg-shlibdeps works out their dependencies, lintian checks them
  dpkg-dev lintian
  nodejs  # runs the classroom's browser test (tests/classroom), with puppeteer-core from npm
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = "installed" ] || missing+=("$package")
done

# npm comes with some builds of nodejs and as a package of its own in Debian's.
command -v npm >/dev/null 2>&1 || missing+=(npm)

# The browser test's JavaScript packages, exactly as package-lock.json records them.
install_node_modules() {
  local folder=tests/classroom
  if [ ! -d "$folder/node_modules/puppeteer-core" ] ||
    [ "$folder/package-lock.json" -nt "$folder/node_modules/.package-lock.json" ]; then
    echo "setup: installing the browser test's npm packages"
    (cd "$folder" && npm ci --no-audit --no-fund --loglevel=error)
  fi
}

if [ ${#missing[@]} -eq 0 ]; then
  install_node_modules
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
install_node_modules
