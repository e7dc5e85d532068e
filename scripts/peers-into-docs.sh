#!/usr/bin/env bash
# Puts the tables of a PeersBench run ($1) into $2, between the lines
# "<!-- peers -->" and "<!-- /peers -->", replacing what stood there.
set -euo pipefail
tables=$1
doc=$2
awk -v tables="$tables" '
  $0 == "<!-- /peers -->" { while ((getline line < tables) > 0) print line; skipping = 0 }
  !skipping { print }
  $0 == "<!-- peers -->" { skipping = 1 }
' "$doc" > "$doc.new"
mv "$doc.new" "$doc"
