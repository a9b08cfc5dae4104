# Sourced by the scripts that need packages: the names, and how to have them installed.
# shellcheck shell=bash disable=SC2034

build_packages=(g++ cmake ninja-build pkg-config libp11-kit-dev libssl-dev libzip-dev)
demo_packages=(softhsm2 gnutls-bin openssl unzip)
test_packages=("${demo_packages[@]}" libgtest-dev opensc python3 strace mount
    gpgsm gpg-agent libnss3-tools)
fuzz_packages=(clang libclang-rt-dev)
bench_packages=("${demo_packages[@]}" python3 opensc opensc-pkcs11 libengine-pkcs11-openssl time
    valgrind gnuplot-nox)
lint_packages=(blhc clang clang-format clang-tidy devscripts git mandoc shellcheck)
packaging_packages=(build-essential debhelper lintian)

is_installed() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# install_packages NAME...: installs those that are missing, as root or with sudo; where none is,
# it needs neither. Ends the script if it cannot.
install_packages() {
    local name missing=() as_root=()
    for name in "$@"; do
        is_installed "$name" || missing+=("$name")
    done
    ((${#missing[@]} > 0)) || return 0

    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null; then
            printf '%s\n' "Packages are missing. As root:" "    apt-get update" \
                "    apt-get install --no-install-recommends ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
        apt-get -q -y -o DPkg::Lock::Timeout=120)
    "${apt[@]}" update </dev/null
    "${apt[@]}" install --no-install-recommends "${missing[@]}" </dev/null
}
