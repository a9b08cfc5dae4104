# Sourced by the scripts that need packages: the names, and how to have them installed.
# shellcheck shell=bash disable=SC2034

build_packages=(g++ cmake ninja-build pkg-config libp11-kit-dev libssl-dev libzip-dev)
test_packages=(libgtest-dev softhsm2 gnutls-bin openssl opensc unzip python3 strace mount clang
    libclang-rt-14-dev)
bench_packages=(python3 softhsm2 gnutls-bin opensc openssl libengine-pkcs11-openssl unzip time
    valgrind)
lint_packages=(git clang clang-format clang-tidy shellcheck)

is_installed() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# install_packages NAME...: installs those that are missing, as root or with sudo; where none is,
# it needs neither.
install_packages() {
    local name missing=() as_root=()
    for name in "$@"; do
        is_installed "$name" || missing+=("$name")
    done
    ((${#missing[@]} > 0)) || return 0

    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            echo "To be installed as root first: apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
        apt-get -q -y -o DPkg::Lock::Timeout=120)
    "${apt[@]}" update </dev/null
    "${apt[@]}" install --no-install-recommends "${missing[@]}" </dev/null
}
