#!/usr/bin/env bash
# Renders the committed PNG sizes and the macOS icon from org.brackwood.vistrel.svg, so that
# builds need no SVG renderer. Needs rsvg-convert (librsvg2-bin) and png2icns (icnsutils).
# Run it after changing the SVG and commit what it writes.
set -euo pipefail
cd "${0%/*}"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for size in 16 24 32 48 64 128 256 512 1024; do
  rsvg-convert -w "$size" -h "$size" org.brackwood.vistrel.svg -o "$tmp/$size.png"
done
for size in 16 24 32 48 64 128 256 512; do
  cp "$tmp/$size.png" "org.brackwood.vistrel-$size.png"
done
png2icns Vistrel.icns "$tmp"/{16,32,48,128,256,512,1024}.png >/dev/null
