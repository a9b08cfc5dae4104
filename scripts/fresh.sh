# Sourced by the scripts that need a Debian nobody has touched.
# shellcheck shell=bash

# Where this machine has its Debian from, and how it asks for it.
package_source() {
    local release
    release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    # shellcheck disable=SC2016 # apt's own variables
    apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Identifier: Packages' |
        awk -v release="$release" '$1 == release && $2 == "main" { print $3 }' | head -n 1 |
        grep . || echo http://deb.debian.org/debian
}
package_settings() {
    apt-config dump | grep -E '^Acquire::(https?|Check-Valid-Until|Check-Date|Retries)\b'
}

# fresh_debian SUITE FOLDER DEBS [PACKAGE...]: makes the smallest Debian of that name, and these
# packages, in a folder. DEBS is where the packages' files are kept for the next time.
fresh_debian() {
    local suite=$1 folder=$2 debs=$3 proxy it include
    shift 3
    mkdir -p "$debs/partial"
    proxy=$(apt-config shell it Acquire::http::Proxy)
    eval "$proxy"
    include=$(IFS=, && echo "ca-certificates${*:+,$*}")
    http_proxy=${it:-${http_proxy:-}} debootstrap --variant=minbase --include="$include" \
        --cache-dir="$debs" "$suite" "$folder" "$(package_source)" &&
        { package_settings >"$folder/etc/apt/apt.conf.d/90as-here" || true; }
}
