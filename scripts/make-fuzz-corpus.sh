#!/usr/bin/env bash
# Makes the seed corpora of the fuzz targets; see make-fuzz-corpus.py.
set -euo pipefail
exec python3 "$(dirname "$0")/make-fuzz-corpus.py" "$@"
