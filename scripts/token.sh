# Sourced by what needs a software token: a SoftHSM of its own, apart from the system's tokens.
# shellcheck shell=bash

_scripts=$(dirname "$(realpath "${BASH_SOURCE[0]}")")

# private_modules FOLDER: from here on, this process and those it starts find the PKCS#11 modules
# registered in FOLDER in place of the machine's and the user's.
private_modules() {
    local view=$_scripts/../build/registry.so
    if [[ ! -e $view || $_scripts/registry.c -nt $view ]]; then
        mkdir -p "${view%/*}"
        cc -D_GNU_SOURCE -O1 -shared -fPIC -o "$view.$$" "$_scripts/registry.c" || return
        mv "$view.$$" "$view"
    fi
    mkdir -p "$1"
    export VELMORA_MODULES=$1 P11_KIT_NO_USER_CONFIG=1
    LD_PRELOAD=$(realpath "$view"):${LD_PRELOAD:-}
    ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS:-}
    export LD_PRELOAD ASAN_OPTIONS
}

# private_softhsm FOLDER: the same for the tokens of SoftHSM, which are in FOLDER and need no right
# to read the system's.
private_softhsm() {
    mkdir -p "$1/tokens"
    export SOFTHSM2_CONF=$1/softhsm2.conf
    cat >"$SOFTHSM2_CONF" <<CONF
directories.tokendir = $1/tokens
objectstore.backend = file
log.level = ERROR
CONF
    private_modules "$1/modules"
    echo "module: /usr/lib/softhsm/libsofthsm2.so" >"$1/modules/softhsm2.module"
}

# new_token LABEL PIN: makes a token in the private SoftHSM and prints its serial.
new_token() {
    softhsm2-util --init-token --free --label "$1" --pin "$2" --so-pin 12345678 >/dev/null
    softhsm2-util --show-slots | awk -v label="$1" '
        sub(/^ *Serial number: */, "") { serial = $1 }
        sub(/^ *Label: */, "") && sub(/ *$/, "") && $0 == label { print serial }'
}

# certify SERIAL PIN SUFFIX: has a throw-away authority (ca.pem, made where there is none) issue
# certificates for the requests ds and kep, and puts them on the token; ds.pem is the first of them.
certify() {
    local name
    [[ -e ca.pem ]] ||
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -keyout ca.key \
            -out ca.pem -subj "/CN=Throw-away CA" || return
    for name in ds kep; do
        openssl x509 -req -inform DER -in "$name$3" -copy_extensions copy -days 365 \
            -CA ca.pem -CAkey ca.key -out "$name.pem" &&
            GNUTLS_PIN=$2 p11tool --batch --login --write --load-certificate "$name.pem" \
                --label "${name^^}" "pkcs11:serial=$1" || return
    done
}
