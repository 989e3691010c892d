# What ./run and ./test share, sourced by both: installs what is missing, configures and builds.
# Expects $top, the root of the project.

PACKAGES=(g++ cmake ninja-build libsqlite3-dev sqlite3 libgtest-dev libbenchmark-dev
          python3-aiosmtpd mandoc)
WEB_PACKAGES=(lighttpd)               # ./run --web
BROWSER_PACKAGES=(lighttpd chromium)  # ./test --web, besides node and npm

say() { printf '%s\n' "$@"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

# Installs the Debian packages that are missing, as root or through sudo; without either it names them and stops.
install_missing() {
    local missing=() package as_root=()
    command -v dpkg-query >/dev/null || fail "this needs a Debian system (or: $(printf '%s ' "${PACKAGES[@]}")installed and 'cmake --preset release')"
    for package in "${PACKAGES[@]}"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    if [ "$(id -u)" -ne 0 ]; then
        sudo -n true 2>/dev/null || { [ -t 0 ] && command -v sudo >/dev/null; } ||
            fail "missing Debian packages: ${missing[*]}
Install them as root:  apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    say "Installing Debian packages: ${missing[*]}"
    # The web server is started by us, on one port of this host: the package's own service stays off.
    case " ${missing[*]} " in *' lighttpd '*)
        command -v systemctl >/dev/null && "${as_root[@]}" systemctl mask --quiet lighttpd 2>/dev/null ;;
    esac
    "${as_root[@]}" apt-get update -qq &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
        fail "the packages could not be installed: ${missing[*]}"
}

# build PRESET [TARGET...]: configures once, builds what changed, prints compiler output only if something fails.
build() {
    local preset=$1 directory="$top/build" log
    shift
    [ "$preset" = release ] || directory="$top/build/$preset"
    say "Building ($preset) into ${directory#"$top"/} ..."
    log="$directory/build.log"
    { mkdir -p "$directory" && : >"$log"; } 2>/dev/null ||
        fail "can't write into $directory: this needs a checkout of your own, in a place that you may write to"
    (cd "$top" && cmake --preset "$preset" >"$log" 2>&1 &&
        cmake --build --preset "$preset" ${1:+--target "$@"} >>"$log" 2>&1) ||
        { tail -n 60 "$log" >&2; fail "the build failed; all of its output is in ${log#"$top"/}"; }
}
