# What every benchmark script starts with: the build folder, a scratch folder that goes
# away at exit, the pair timer, and a raised priority for the timed processes when
# allowed (both sides of a pair alike). Sourced with the tools the script needs:
#   source bench/setup.sh NAME BUILD-FOLDER-ARGUMENT TOOL...
# A missing tool skips the whole benchmark with a line that says so.
bench_name=$1
here=$(cd "$(dirname "${BASH_SOURCE[1]}")" && pwd)
build=$(cd "${2:-$here/../build}" && pwd)
runs=${RUNS:-40}
for tool in g++ python3 "${@:3}"; do
  if ! command -v "$tool" >/dev/null; then
    echo "$bench_name: $tool is missing; skipped"
    exit 0
  fi
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
g++ -std=c++17 -O2 -o pairtime "$here/pairtime.cpp"
kelpth=$build/kelpth
kelsim=$build/kelsim
priority=()
if [[ $(nice -n -10 nice 2>/dev/null) == -10 ]]; then
  priority=(nice -n -10)
fi
