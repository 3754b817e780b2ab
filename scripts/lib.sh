# lib.sh, sourced by the scripts here (bash): what more than one of them does.
# Sets $top, the source tree, unless the caller has set it.
top=${top:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}

# wd_build [-j JOBS] [-l LINES] [-i] [-t TARGET]... DIR CMAKE-ARG...:
# configures the source tree in the build directory DIR with CMAKE-ARGs (the
# build type among them) and builds it, with JOBS jobs (default: every
# processor). With -l the build's output goes to DIR/build.log and, when the
# build fails, its last LINES lines are shown; without, it is dropped (the
# errors still show). -t builds only TARGET; -i installs into DIR/stage
# afterwards. Ends the script when a step fails.
wd_build() {
  local jobs lines="" install=0 targets=() dir OPTIND=1 opt
  jobs=$(nproc)
  while getopts j:l:it: opt; do
    case "$opt" in
      j) jobs=$OPTARG ;;
      l) lines=$OPTARG ;;
      i) install=1 ;;
      t) targets+=(--target "$OPTARG") ;;
      *) echo "wd_build: unknown option" >&2; exit 2 ;;
    esac
  done
  shift $((OPTIND - 1))
  dir=$1
  shift
  cmake -S "$top" -B "$dir" "$@" > /dev/null || exit
  if [ -n "$lines" ]; then
    cmake --build "$dir" -j "$jobs" ${targets[@]+"${targets[@]}"} > "$dir/build.log" 2>&1 ||
      { tail -"$lines" "$dir/build.log"; exit 1; }
  else
    cmake --build "$dir" -j "$jobs" ${targets[@]+"${targets[@]}"} > /dev/null || exit
  fi
  [ "$install" = 0 ] || cmake --install "$dir" --prefix "$dir/stage" > /dev/null || exit
}
