#!/usr/bin/env bash
# Installs the Debian packages the project builds with. Idempotent: when every
# package is already present it returns without touching apt.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config clang-format
    libsqlcipher-dev sqlcipher libsqlite3-dev
    nlohmann-json3-dev libssl-dev uuid-dev libsystemd-dev libicu-dev libcli11-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    qt6-base-dev qt6-declarative-dev qcoro-qt6-dev
    qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
    qml6-module-qtquick-window qml6-module-qttest
    qml6-module-qtquick-templates qml6-module-qtqml-workerscript libqt6svg6 fonts-dejavu-core
    clang-14 libclang-rt-14-dev python3
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if ((${#missing[@]} > 0)); then
    echo "setup: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
