#!/usr/bin/env bash
# Installs the peers, builds, makes the input, and prints the table of the codec beside its peers.
# Further arguments go to the benchmark, for instance --benchmark_filter='^decompress'.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/packages.sh g++ cmake ninja-build openssl libbenchmark-dev zlib1g-dev libdeflate-dev \
  liblz4-dev libzstd-dev >&2
cmake --preset release -DCAPSULE_BENCH=ON -DCAPSULE_CLI=OFF -DCAPSULE_TESTS=OFF -B build/bench >&2
cmake --build build/bench --target codec_bench >&2
bench/make_corpus.sh build/corpus >&2
echo "$(lscpu | sed -n 's/^Model name: *//p'), $(g++ -dumpfullversion | sed 's/^/g++ /')"
build/bench/bench/codec_bench build/corpus --benchmark_min_time=0.05 \
  --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true "$@"
