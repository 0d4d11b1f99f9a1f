# shellcheck shell=bash disable=SC2034
# What is built for the target, a 32-bit big-endian PowerPC, before tessd is. To be sourced by bash after lib.sh.
#
#   make_once PRODUCT [INPUT...]   makes CACHE/PRODUCT-SUM with the function make_PRODUCT, unless it is there; SUM stands for
#                                  that function, the compiler and the input files, with their names and rights. To be used
#                                  with step or check
#   place PRODUCT [INPUT...]       prints the path of that folder
#   use_libraries                  has the preset powerpc find the libraries that make_libraries has made
#
# A recipe make_PRODUCT FOLDER [INPUT...] runs in an empty folder of its own, and leaves in FOLDER what is to be kept.

TRIPLET=powerpc-linux-gnu
CACHE=${XDG_CACHE_HOME:-$HOME/.cache}/tessd-board
CROSS_PACKAGES=("g++-$TRIPLET" dpkg-dev xz-utils make autoconf automake libtool pkg-config)

place()
{
    local product=$1
    shift
    printf '%s/%s-%.16s\n' "$CACHE" "$product" \
        "$({ declare -f "make_$product" && $TRIPLET-gcc -dumpfullversion && printf '%s\n' "${@##*/}" &&
            stat -c %a /dev/null "$@" && cat /dev/null "$@"; } | sha256sum)"
}

# The folder appears whole or not at all, and only one at a time makes it.
make_once()
{
    local product=$1 folder work status=0
    folder=$(place "$@") && mkdir -p "$CACHE" && exec 9>"$CACHE/$product.lock" && flock 9 || return
    if [ -e "$folder" ]; then return; fi
    shift
    work=$CACHE/making-$product
    rm -rf "$work" && mkdir -p "$work/kept" "$work/work" || return # it is there when somebody has stopped a run
    mapfile -t inputs < <(realpath -m "$@" /)
    unset 'inputs[-1]'
    (cd "$work/work" && "make_$product" "$work/kept" "${inputs[@]}") && mv "$work/kept" "$folder" || status=$?
    rm -rf "$work"
    return $status
}

# A Debian source package, into the folder PACKAGE. apt keeps its lists of sources in CACHE: the system's own settings stay
# as they are.
fetch_source()
{
    local apt=$CACHE/apt
    (exec 8>"$CACHE/apt.lock" && flock 8 && source_lists "$apt" &&
        { APT_CONFIG=$apt/apt.conf apt-get -q update || true; }) && # a foreign archive without sources does not matter
        APT_CONFIG=$apt/apt.conf apt-get -q source "$1" &&
        mv "$1"-*/ "$1"
}

source_lists()
{
    local apt=$1 file
    mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache/archives/partial" &&
        cat >"$apt/apt.conf" <<END_OF_SETTINGS &&
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "$apt/parts";
Dir::State::lists "$apt/lists";
Dir::Cache "$apt/cache";
APT::Sandbox::User "root";
END_OF_SETTINGS
        find /etc/apt -name '*.list' -exec sed -n 's/^deb\([[:blank:]]\)/deb-src\1/p' {} + >"$apt/sources.list" || return
    for file in /etc/apt/sources.list.d/*.sources; do
        if [ -e "$file" ]; then
            sed 's/^Types:.*/Types: deb-src/' "$file" >"$apt/parts/${file##*/}" || return
        fi
    done
}

# Debian has neither libcrypt nor libedit for this processor. They are built from Debian's sources, libcrypt with the options
# of Debian's package. ncurses and libedit are static; libedit has in it what both need of the terminals, with those that a
# console meets: no device needs a database of terminals. libmosquitto is static too, and without TLS, which would want OpenSSL
# first: it is there so that the bridge is tried on this processor. Libraries that are headers only are the host's.
make_libraries()
{
    local kept=$1 work=$PWD
    fetch_source libxcrypt && fetch_source ncurses && fetch_source libedit && fetch_source mosquitto &&
        (cd libxcrypt && autoreconf -fi) && (cd libedit && autoreconf -fi) && mkdir crypt curses edit &&
        cd "$work/crypt" &&
        ../libxcrypt/configure --host=$TRIPLET --prefix=/usr --disable-werror --disable-xcrypt-compat-files \
            --enable-obsolete-api=glibc &&
        make -j "$JOBS" && make install DESTDIR="$kept" &&
        cd "$work/curses" &&
        ../ncurses/configure --host=$TRIPLET --prefix=/usr --with-termlib --without-shared --without-debug --without-ada \
            --without-cxx --without-cxx-binding --without-progs --without-tests --without-manpages --without-gpm \
            --disable-database --with-fallbacks=ansi,dumb,linux,screen,vt100,vt102,xterm,xterm-256color &&
        make -j "$JOBS" -C include && make -j "$JOBS" -C ncurses &&
        cp lib/libncurses.a "$kept/usr/lib" && make -C include install.includes DESTDIR="$kept" &&
        cd "$work/edit" &&
        ../libedit/configure --host=$TRIPLET --prefix=/usr --disable-shared --disable-examples ac_cv_lib_ncurses_tgetent=yes \
            LIBBSD_CFLAGS=-D_GNU_SOURCE LIBBSD_LIBS=-ltinfo \
            CPPFLAGS="-I$work/curses/include" LDFLAGS="-L$work/curses/lib" LIBS=-ltinfo &&
        make -j "$JOBS" -C src && cp "$work/libedit/src/histedit.h" "$kept/usr/include" &&
        printf '%s\n' "create $kept/usr/lib/libedit.a" "addlib src/.libs/libedit.a" "addlib $work/curses/lib/libtinfo.a" \
            save end | $TRIPLET-ar -M &&
        make -j "$JOBS" -C "$work/mosquitto/lib" CROSS_COMPILE=$TRIPLET- CC=gcc WITH_TLS=no WITH_THREADING=no WITH_SRV=no \
            WITH_SHARED_LIBRARIES=no WITH_STATIC_LIBRARIES=yes libmosquitto.a &&
        cp "$work/mosquitto/lib/libmosquitto.a" "$kept/usr/lib" &&
        cp "$work"/mosquitto/include/{mosquitto,mqtt_protocol}.h "$kept/usr/include" &&
        mkdir -p "$kept/usr/share/cmake" &&
        ln -s /usr/include/{CLI,nlohmann} "$kept/usr/include" &&
        ln -s /usr/share/cmake/{CLI11,nlohmann_json} "$kept/usr/share/cmake"
}

use_libraries()
{
    mkdir -p build && rm -rf build/powerpc-extra && ln -s "$(place libraries)" build/powerpc-extra
}
