#!/bin/sh
# A bare Debian 12 below FOLDER, and in its /packages the packages that are to be tried, with all that they depend on
# downloaded: packages_root.sh FOLDER PACKAGE.deb...
# Nothing is installed into it here, so no script of a package runs on the machine's own network.
set -eu
root=$1
shift
compiler="gcc libc6-dev pkg-config" # for a plug-in of one's own
managers="systemd openrc"           # that start the service

# Where this machine has its packages from.
mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Codename: bookworm' 'Component: main' |
    head -n 1)
if [ -z "$mirror" ]; then
    echo "apt knows no archive of Debian 12 (bookworm, main) here: run apt-get update, or add one" >&2
    exit 1
fi
if [ ! -e "$root/complete" ]; then
    rm -rf "$root"
    debootstrap --variant=minbase bookworm "$root" "$mirror"
    apt-config dump Acquire >"$root/etc/apt/apt.conf.d/machine" # a proxy, say
    printf 'APT::Install-Recommends "false";\nAPT::Get::Assume-Yes "true";\n' >>"$root/etc/apt/apt.conf.d/machine"
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d" # no service starts by itself
    chmod +x "$root/usr/sbin/policy-rc.d"
    touch "$root/complete"
fi
rm -rf "$root/packages"
mkdir "$root/packages"
cp "$@" "$root/packages"
chroot "$root" apt-get -q update
chroot "$root" sh -c 'exec apt-get -q install --download-only /packages/*.deb '"$compiler"
for manager in $managers; do # of which there can be one
    chroot "$root" apt-get -q install --download-only "$manager"
done
