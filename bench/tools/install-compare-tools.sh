#!/usr/bin/env bash
# Installs the image-diff tools the comparison benchmark measures against (pixelmatch with pngjs,
# and odiff, whose native binary ships in its npm package) into a cache folder outside the
# repository. Idempotent. Prints the folder on success.
set -euo pipefail
prefix="${SAFFRA_BENCH_TOOLS:-$HOME/.cache/saffra-bench}"
if [ ! -d "$prefix/node_modules/pixelmatch" ] || [ ! -d "$prefix/node_modules/pngjs" ] ||
   [ ! -d "$prefix/node_modules/odiff-bin" ]; then
  mkdir -p "$prefix"
  npm install --silent --no-audit --no-fund --prefix "$prefix" pixelmatch pngjs odiff-bin >&2
fi
echo "$prefix"
