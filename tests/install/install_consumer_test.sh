#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and builds a small program against
# it twice: through find_package(OrvikIdentity) and through pkg-config. Checks that
# the internal headers stay behind and that every installed header compiles alone.
#
#   install_consumer_test.sh BUILD_DIR SOURCE_DIR CXX [extra compiler flags]
set -euo pipefail
build=$1 source=$2 cxx=$3
shift 3
extra=("$@")

work=$(mktemp -d "${TMPDIR:-/tmp}/orvik-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "install_consumer_test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

[[ -x $prefix/bin/orvik-identity ]] || fail "orvik-identity was not installed"
"$prefix/bin/orvik-identity" --version >/dev/null || fail "the installed orvik-identity does not run"
[[ -f $prefix/include/orvik/identity/IdentityRepository.h ]] || fail "public headers missing"
if find "$prefix/include" -name '*Internal.h' | grep -q .; then
    fail "internal headers were installed: $(find "$prefix/include" -name '*Internal.h')"
fi

# The QML module sits under <prefix>/lib/qml, and its plugin finds the installed
# backing library.
qmldir=$prefix/lib/qml/Orvik/Identity
[[ -f $qmldir/qmldir ]] || fail "the QML module is not under $prefix/lib/qml"
plugin=$(find "$qmldir" -name '*.so' | head -1)
[[ -n $plugin ]] || fail "the QML plugin was not installed"
ui=$(env -u LD_LIBRARY_PATH ldd "$plugin" | awk '/liborvik_identity_ui/ {print $3}')
[[ $ui == "$prefix"/* ]] || fail "the QML plugin does not find the installed backing library (${ui:-none})"

# Each public header compiles on its own with the flags the package gives: it
# includes nothing that was left behind.
pcdir=$(dirname "$(find "$prefix" -name orvik-identity.pc | head -1)")
[[ -n $pcdir ]] || fail "orvik-identity.pc was not installed"
export PKG_CONFIG_PATH=$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
read -r -a cflags <<<"$(pkg-config --cflags orvik-identity)"
read -r -a libs <<<"$(pkg-config --libs orvik-identity)"
while IFS= read -r header; do
    relative=${header#"$prefix/include/"}
    echo "#include <$relative>" | "$cxx" -std=c++20 -fsyntax-only "${cflags[@]}" -x c++ - ||
        fail "$relative does not compile on its own"
done < <(find "$prefix/include" -name '*.h' | sort)

# pkg-config.
mkdir "$work/pc"
"$cxx" -std=c++20 "${extra[@]}" "${cflags[@]}" "$source/tests/install/consumer/consumer.cpp" \
    -o "$work/pc/consumer" "${libs[@]}"
[[ $("$work/pc/consumer" "$work/pc") == ok ]] || fail "the pkg-config consumer failed"

# find_package.
cmake -S "$source/tests/install/consumer" -B "$work/cmake" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="${extra[*]}" -DCMAKE_EXE_LINKER_FLAGS="${extra[*]}" >/dev/null
cmake --build "$work/cmake" >/dev/null
[[ $("$work/cmake/consumer" "$work/cmake") == ok ]] || fail "the find_package consumer failed"
echo "install_consumer_test: installed tree, pkg-config and find_package consumers all fine"
