#!/usr/bin/env bash
# Run by scripts/check-packages.sh as root in a copy of the system, in which the packages, a consumer and the example of a
# unit lie beside this script: installs the packages, uses them as a developer and as an administrator do, and purges
# them.
set -euo pipefail
cd "$(dirname "$0")"

fifo_directory=/dev/shm/velm/tarvo

# No new index of all manual pages after each step: nothing here looks at it, and it takes seconds each time.
rm -f /var/lib/man-db/auto-update
dpkg --install ./*.deb >dpkg.log 2>&1 || { cat dpkg.log && exit 1; }
getent group tarvo >/dev/null || { echo "the group tarvo is missing" && exit 1; }
if command -v systemd-tmpfiles >/dev/null; then
    found=$(stat -c '%a %U:%G' $fifo_directory)
    [[ $found == "2770 root:tarvo" ]] || { echo "the FIFO directory is $found" && exit 1; }
    found_stats=$(stat -c '%a %U:%G' $fifo_directory-stats)
    [[ $found_stats == "3770 root:tarvo" ]] || { echo "the directory of the statistics is $found_stats" && exit 1; }
    echo "installed: group and FIFO directory ($found) are there"
else
    echo "installed: no systemd-tmpfiles here to make the FIFO directory"
fi
for library in libtarvo libtarvo-loop; do
    ldconfig -p | grep "$library\.so\.1 .*=> /lib/" >/dev/null ||
        { echo "the loader does not know $library.so.1" && exit 1; }
done

cmake -S consumer -B build-cmake >/dev/null
cmake --build build-cmake >/dev/null
build-cmake/consumer
# shellcheck disable=SC2046 # a list of options
g++ -std=c++17 -o consumer-pc consumer/consumer.cpp $(pkg-config --cflags --libs tarvo)
./consumer-pc
build-cmake/loop_consumer
build-cmake/stats_consumer
# shellcheck disable=SC2046 # a list of options
g++ -std=c++17 -o loop-consumer-pc consumer/loop_consumer.cpp $(pkg-config --cflags --libs tarvo-loop)
./loop-consumer-pc
# shellcheck disable=SC2046 # a list of options
cc -std=c11 -o loop-consumer-c consumer/loop_consumer.c $(pkg-config --cflags --libs tarvo-loop)
./loop-consumer-c
echo "consumers of the CMake package and of the pkg-config file run"

# From a folder where no package of the same name lies.
mkdir nowhere
cd nowhere
python3 -c 'import importlib.metadata, tarvo; assert importlib.metadata.version("tarvo") == tarvo.__version__'
compgen -G '/usr/lib/python3/dist-packages/tarvo/__pycache__/link.*.pyc' >/dev/null || { echo "no module is compiled" && exit 1; }
python3 -m tarvo serve gate --limit 1 2>/dev/null &
server=$!
until answer=$(python3 -m tarvo call gate "from Python" 2>/dev/null); do
    kill -0 $server
done
wait $server
[[ $answer == "from Python" ]] || { echo "the Python package answers: $answer" && exit 1; }
! python3 -c 'import pytest' 2>/dev/null || python3 -m pytest --fixtures 2>/dev/null | grep -q '^tarvo_directory' ||
    { echo "pytest does not find the fixtures" && exit 1; }
echo "the Python package serves and calls"
cd ..

pages=(tarvo TarvoOpen TarvoRPCSync TarvoLoopCreate TarvoLinkCall)
! command -v tarvoctl >/dev/null || pages+=(tarvo-errors tarvo-log tarvo-loop)
for page in "${pages[@]}"; do
    MANWIDTH=80 man "$page" >page.txt 2>/dev/null || { echo "there is no page $page" && exit 1; }
    grep -qw "$page" page.txt || { echo "the page $page tells nothing of it" && exit 1; }
done

if command -v tarvoctl >/dev/null; then
    tarvoctl --version >/dev/null
    tarvoctl doctor --help >/dev/null
    man --where tarvoctl >/dev/null
    echo "the tool runs"
else
    sed -i "s:^ExecStart=.*:ExecStart=$PWD/consumer-pc:" tarvo-example.service
fi
if dpkg --status tarvo-bridge >/dev/null 2>&1; then
    getent passwd tarvo-bridge >/dev/null || { echo "the user tarvo-bridge is missing" && exit 1; }
    getent group tarvo-bridge >/dev/null || { echo "the group tarvo-bridge is missing" && exit 1; }
    # As it comes it names neither an export nor an import, and nothing else is wrong with it.
    check=(tarvo-bridge --check --config /etc/tarvo/bridge.conf)
    ! "${check[@]}" 2>bridge.log || { echo "the bridge has something to do before anybody said what" && exit 1; }
    [[ $(<bridge.log) == *"there is nothing to do: neither an export nor an import is given" && $(wc -l <bridge.log) == 1 ]] ||
        { cat bridge.log && exit 1; }
    runuser -u tarvo-bridge -- "${check[@]}" --export camera >bridge.log 2>&1 || { cat bridge.log && exit 1; }
    echo "the bridge takes its configuration: $(<bridge.log)"
fi

if command -v systemd-analyze >/dev/null; then
    units=(./tarvo-example.service)
    ! dpkg --status tarvo-bridge >/dev/null 2>&1 || units+=(/usr/lib/systemd/system/tarvo-bridge.service)
    for unit in "${units[@]}"; do
        # Without the option what it warns of is no failure.
        systemd-analyze verify --recursive-errors=no "$unit"
        # From 0 (locked in) to 100 (may do anything); an ordinary service has 96.
        systemd-analyze security --offline=yes --threshold=20 "$unit" >security.log || { cat security.log && exit 1; }
        echo "systemd accepts ${unit##*/}: $(tail -n 1 security.log | sed 's/^[^O]*//')"
    done
fi

# What was asked for twice changes nothing, and what is removed takes nothing from processes that still run.
dpkg --install ./*.deb >dpkg.log 2>&1 || { cat dpkg.log && exit 1; }
mkfifo $fifo_directory/in_use
packages=(python3-tarvo tarvo-tools libtarvo-doc libtarvo-dev libtarvo-loop1 libtarvo1)
! dpkg --status tarvo-bridge >/dev/null 2>&1 || packages=(tarvo-bridge "${packages[@]}")
dpkg --purge "${packages[@]}" >dpkg.log 2>&1 || { cat dpkg.log && exit 1; }
{ [[ -p $fifo_directory/in_use ]] && getent group tarvo >/dev/null; } || { echo "the purge took what is in use" && exit 1; }
! ldconfig -p | grep libtarvo >/dev/null || { echo "the loader still knows libtarvo" && exit 1; }
[[ ! -e /usr/lib/python3/dist-packages/tarvo ]] || { echo "the purge left compiled modules" && exit 1; }

# The wheel brings the same where no package is installed.
python3 -m pip install --quiet --no-index --no-deps --root-user-action=ignore --target wheel ./tarvo-*.whl
[[ -e wheel/tarvo/py.typed ]] || { echo "the wheel has no py.typed" && exit 1; }
(cd nowhere && ! python3 -c 'import tarvo' 2>/dev/null && PYTHONPATH=../wheel python3 -m tarvo --version)
echo "purged: running processes keep their FIFOs and their group"
