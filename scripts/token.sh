# Sourced by what needs a software token: a SoftHSM of its own, apart from the system's tokens.
# shellcheck shell=bash

# private_softhsm FOLDER: from here on, this process and those it starts see the tokens in FOLDER
# in place of the system's, and need no right to read those.
private_softhsm() {
    mkdir -p "$1/tokens"
    export SOFTHSM2_CONF=$1/softhsm2.conf
    cat >"$SOFTHSM2_CONF" <<END
directories.tokendir = $1/tokens
objectstore.backend = file
log.level = ERROR
END
}

# new_token LABEL PIN: makes a token in the private SoftHSM and prints its serial.
new_token() {
    softhsm2-util --init-token --free --label "$1" --pin "$2" --so-pin 12345678 >/dev/null
    softhsm2-util --show-slots | awk -v label="$1" '
        sub(/^ *Serial number: */, "") { serial = $1 }
        sub(/^ *Label: */, "") && sub(/ *$/, "") && $0 == label { print serial }'
}
