#!/usr/bin/env bash
# Installs what is missing on a Debian machine, by package name with apt-get.
#   scripts/bootstrap.sh [run|test|bench]...     run: build and play the sample (default); test, bench: on top of that
# Says what it does, and does nothing when all is there.
set -euo pipefail

run_packages=(g++ cmake make pkg-config libconfig-dev libbitstream-dev python3)
test_packages=(ninja-build ccache git libgtest-dev clang clang-format libclang-rt-14-dev python3-pytest ffmpeg multicat
               socat nginx-light curl iproute2 procps strace util-linux mandoc)
bench_packages=(libbenchmark-dev time wrk)

wanted=("${run_packages[@]}")
(($#)) || set -- run
for set_name in "$@"; do
    case $set_name in
    run) ;;
    test) wanted+=("${test_packages[@]}") ;;
    bench) wanted+=("${bench_packages[@]}") ;;
    *) echo "usage: $0 [run|test|bench]..." >&2; exit 2 ;;
    esac
done

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "bootstrap: this is no Debian system; please provide the equivalents of: ${wanted[*]}" >&2
    exit 0
fi

missing=()
for package in "${wanted[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed ]] || missing+=("$package")
done
((${#missing[@]})) || exit 0

as_root=()
if ((EUID != 0)); then
    command -v sudo >/dev/null || { echo "bootstrap: not root and no sudo; please install: ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
# A web server comes as a service that starts at once. The tests start one of their own: the service stays down.
quiet_service=
if [[ " ${missing[*]} " == *" nginx-light "* && -d /run/systemd/system ]] && ! command -v nginx >/dev/null; then
    quiet_service=nginx.service
    "${as_root[@]}" systemctl mask --quiet --runtime "$quiet_service"
fi
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
if [[ -n $quiet_service ]]; then
    "${as_root[@]}" systemctl unmask --quiet --runtime "$quiet_service"
    "${as_root[@]}" systemctl disable --quiet "$quiet_service"
fi
