#!/usr/bin/env bash
# Make live555 available to the build without touching the system.
#
# Debian stable ships no live555, so we take the binary packages from Debian
# unstable, using a private apt configuration under .deps/apt (the machine's
# own apt sources and state are only read, never changed), unpack them under
# .deps/live555/root, adapt them to this machine's glibc and write
# .deps/live555/live555.pc for the build.  livemedia-utils comes along for
# live555MediaServer, which the integration tests serve from.
#
# When unstable's live555 needs what this machine cannot give it (a glibc
# symbol camfetch's compatibility code does not cover, a newer libstdc++ or
# OpenSSL), the testing suite's version is taken instead; when neither loads,
# the fetch fails with one line naming what is missing.  The stamp records the
# suite and the package versions taken, which `camfetch --version` prints.
#
# Does nothing if pkg-config already knows a system live555, or if a previous
# run completed (.deps/live555/.stamp).  Set CAMFETCH_DEBIAN_MIRROR to override
# the archive URL taken from the machine's apt sources.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
deps=$repo/.deps
prefix=$deps/live555
root=$prefix/root
stamp=$prefix/.stamp
aptdir=$deps/apt
# Bump when the layout of $prefix changes, so older trees get rebuilt.
stamp_format=1

log() { echo "fetch_live555: $*" >&2; }
die() { log "error: $*"; exit 1; }

if pkg-config --exists live555 2>/dev/null; then
    pcdir=$(pkg-config --variable=pcfiledir live555)
    if [[ $pcdir != "$prefix"* ]]; then
        log "using system live555 $(pkg-config --modversion live555) ($pcdir)"
        exit 0
    fi
fi
complete() { [[ -f $stamp && $(head -n1 "$stamp") == "format=$stamp_format" ]]; }
complete && exit 0

# One fetch at a time (parallel configure runs); the winner's result is final.
mkdir -p "$deps"
exec 9> "$deps/live555.lock"
flock 9
complete && exit 0

# The Debian archive this machine already uses: first non-security "deb"
# source, from deb822 .sources files or the one-line sources.list.
archive_url() {
    local f
    for f in /etc/apt/sources.list.d/*.sources; do
        [[ -f $f ]] || continue
        # Stanzas are separated by blank lines; print the first URI of each
        # enabled binary stanza that is not a security suite.
        awk '
            function flush() {
                if (uri != "" && types ~ /(^| )deb( |$)/ && suites !~ /-security/ && enabled !~ /^no$/)
                    print uri
                uri = types = suites = enabled = ""
            }
            /^[ \t]*$/ { flush(); next }
            /^#/ { next }
            tolower($1) == "uris:" { uri = $2 }
            tolower($1) == "types:" { $1 = ""; types = $0 " " }
            tolower($1) == "suites:" { $1 = ""; suites = $0 }
            tolower($1) == "enabled:" { enabled = tolower($2) }
            END { flush() }
        ' "$f"
    done
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -f $f ]] || continue
        # deb [options] URI suite components...
        sed -E -n 's/^[ \t]*deb[ \t]+(\[[^]]*\][ \t]+)?([^ \t]+)[ \t]+([^ \t]+).*/\2 \3/p' "$f" |
            awk '$2 !~ /-security/ { print $1 }'
    done
}

mirror=${CAMFETCH_DEBIAN_MIRROR:-$(archive_url | head -n1)}
[[ -n $mirror ]] || die "no Debian archive found in /etc/apt sources; set CAMFETCH_DEBIAN_MIRROR"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
[[ -r $keyring ]] || die "$keyring missing (package debian-archive-keyring)"

# Private apt, one per suite: own sources, lists, cache, an empty dpkg status
# (so nothing on this machine counts as installed) and no preferences.
# Configuration fragments in /etc/apt/apt.conf.d still apply, which keeps proxy
# settings.
use_suite() { # use_suite SUITE: apt sees that suite alone; its downloads go to $debs
    local dir=$aptdir/$1
    mkdir -p "$dir"/{lists/partial,cache/archives/partial,sources.list.d,preferences.d,debs}
    : > "$dir/status"
    echo "deb [signed-by=$keyring] ${mirror%/} $1 main" > "$dir/sources.list"
    cat > "$dir/apt.conf" <<EOF
Dir::State "$dir";
Dir::State::Lists "$dir/lists";
Dir::State::status "$dir/status";
Dir::Cache "$dir/cache";
Dir::Etc::SourceList "$dir/sources.list";
Dir::Etc::SourceParts "$dir/sources.list.d";
Dir::Etc::Preferences "$dir/preferences";
Dir::Etc::PreferencesParts "$dir/preferences.d";
Acquire::Languages "none";
APT::Sandbox::User "$(id -un)";
EOF
    export APT_CONFIG=$dir/apt.conf
    debs=$dir/debs
}

field() { # field PACKAGE FIELD -> first word of that field of the candidate
    apt-cache show --no-all-versions "$1" | sed -n "s/^$2: *\([^ ]*\).*/\1/p" | head -n1
}

# What the unpacked binaries need from this machine and cannot get: libraries
# not found, symbol versions missing (a newer libstdc++ or OpenSSL), undefined
# symbols. The server is relocated with every library preloaded, so that the
# libraries' references to each other resolve as in a program that uses them
# all. The C23 names camfetch defines itself do not count: they are bound once
# libcamfetch (or the server's preload) is there.
unmet() { # unmet SERVER LIBDIR -> the names, on one line
    local preload
    preload=$(find "$2" -maxdepth 1 -type f -name 'lib*.so.*' | paste -s -d ' ')
    LD_PRELOAD=$preload LD_LIBRARY_PATH=$2 ldd -r "$1" 2>&1 |
        sed -n -E -e 's/^[[:space:]]*([^ ]+) => not found.*/\1/p' \
            -e "s/.*version \`([^']+)' not found.*/\1/p" \
            -e 's/^undefined symbol: ([^[:space:]]+).*/\1/p' |
        grep -v -x -F -f <(python3 "$repo/scripts/glibc_compat_patch.py" --provided) |
        sort -u | paste -s -d ' ' || true
}

# try_suite SUITE: the newest live555 of that suite, unpacked into $candidate
# and adapted to this machine; or false with the reason, on one line, in $why.
try_suite() {
    local suite=$1 dev=liblivemedia-dev source_pkg dep dep_source deb lib patched missing
    use_suite "$suite"
    log "reading the $suite package index from $mirror"
    apt-get -q update >&2 || { why="$suite: apt-get update failed"; return 1; }
    version=$(field "$dev" Version)
    [[ -n $version ]] || { why="$suite: no $dev"; return 1; }
    source_pkg=$(field "$dev" Source)
    source_pkg=${source_pkg:-$dev}
    # The runtime libraries are the dev package's dependencies built from the
    # same source; their names carry sonames, so they are looked up, not written.
    local runtime=()
    for dep in $(apt-cache depends "$dev" | awk '$1 == "Depends:" { print $2 }' | tr -d '<>'); do
        dep_source=$(field "$dep" Source)
        [[ ${dep_source:-$dep} == "$source_pkg" ]] && runtime+=("$dep")
    done
    ((${#runtime[@]})) || { why="$suite $version: no runtime packages of $dev"; return 1; }
    local packages=("$dev" "${runtime[@]}" livemedia-utils)
    rm -f "$debs"/*.deb
    (cd "$debs" && apt-get -q download "${packages[@]}" >&2) ||
        { why="$suite $version: downloading ${packages[*]} failed"; return 1; }

    rm -rf "$candidate"
    mkdir -p "$candidate"
    for deb in "$debs"/*.deb; do
        dpkg-deb -x "$deb" "$candidate"
    done
    libdir=$(dirname "$(find "$candidate/usr/lib" -name libliveMedia.so -print -quit)")
    [[ -d $libdir && $libdir != . ]] || { why="$suite $version: no libliveMedia.so"; return 1; }
    [[ -x $candidate/usr/bin/live555MediaServer ]] ||
        { why="$suite $version: no live555MediaServer in livemedia-utils"; return 1; }
    # Patch the real files, not their soname symlinks.
    local targets=("$candidate/usr/bin/live555MediaServer")
    for lib in "$libdir"/*.so.*; do
        [[ -L $lib ]] || targets+=("$lib")
    done
    if ! patched=$(python3 "$repo/scripts/glibc_compat_patch.py" "${targets[@]}" 2>&1); then
        why="$suite $version: $(grep -v '^$' <<<"$patched" | tail -n1 | sed 's|^[^:]*/||')"
        return 1
    fi
    [[ -z $patched ]] || echo "$patched" >&2
    missing=$(unmet "${targets[0]}" "$libdir")
    [[ -z $missing ]] || { why="$suite $version: needs $missing, which this machine lacks"; return 1; }
}

# The newest candidate first; the testing suite's when unstable's needs what
# this machine (with camfetch's compatibility code) cannot give.
candidate=$prefix/root.new
reasons=()
taken=
for suite in unstable testing; do
    if try_suite "$suite"; then
        taken=$suite
        break
    fi
    log "$why"
    reasons+=("$why")
done
if [[ -z $taken ]]; then
    rm -rf "$candidate"
    die "no live555 from Debian loads here: $(printf '%s; ' "${reasons[@]}" | sed 's/; $//')"
fi

rm -rf "$root" "$stamp"
mv "$candidate" "$root"
libdir=$(dirname "$(find "$root/usr/lib" -name libliveMedia.so -print -quit)")
server=$root/usr/bin/live555MediaServer
# The library is built with TLS support, whose members appear in the public
# headers, so compiling against it needs the OpenSSL headers too.
[[ -f /usr/include/openssl/ssl.h ]] ||
    log "warning: OpenSSL headers missing; install libssl-dev to compile against live555"

# The package's own pkg-config file, pointed at the unpacked tree.
# Whether the libraries were built with NO_STD_LIB changes the headers (the
# event-loop watch variable is char volatile instead of std::atomic_char) but
# the shipped Cflags do not say; the exported doEventLoop signature does.
# The libraries have no search path of their own and a RUNPATH only serves its
# object's direct dependencies, so consumers get an old-style RPATH, which the
# loader also applies to the libraries they load.
shipped_pc=$libdir/pkgconfig/live555.pc
[[ -f $shipped_pc ]] || die "liblivemedia-dev ships no live555.pc"
command -v nm > /dev/null || die "nm (binutils) is needed to inspect the libraries"
extra_cflags=
if nm -D --defined-only "$libdir/libBasicUsageEnvironment.so" | grep '_ZN19BasicTaskScheduler011doEventLoopEPVc$' >/dev/null; then
    extra_cflags=" -DNO_STD_LIB"
fi
sed -e "s|^prefix=.*|prefix=$root/usr|" \
    -e "s|^libdir=.*|libdir=$libdir|" \
    -e "/^Cflags:/s|\$|$extra_cflags|" \
    -e "/^Libs:/s|\$| -Wl,--disable-new-dtags -Wl,-rpath,\${libdir}|" \
    "$shipped_pc" > "$prefix/live555.pc"

{
    echo "format=$stamp_format"
    echo "mirror=$mirror"
    echo "suite=$taken"
    echo "includedir=$root/usr/include"
    echo "libdir=$libdir"
    echo "server=$server"
    for deb in "$debs"/*.deb; do
        echo "package=$(dpkg-deb -f "$deb" Package)=$(dpkg-deb -f "$deb" Version)"
    done
} > "$stamp.tmp"
mv "$stamp.tmp" "$stamp"
log "live555 $version from Debian $taken ready: PKG_CONFIG_PATH=$prefix pkg-config live555"
