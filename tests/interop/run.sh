#!/bin/sh
# Puts the packages of the lock file into FOLDER, unless they are there, and runs the tests.
#
# usage: run.sh FOLDER PROGRAM NODE NPM
set -eu
here=$(dirname "$(readlink -f "$0")")
folder=$1 program=$2 node=$3 npm=$4

cp "$here"/package.json "$here"/package-lock.json "$here"/*.mjs "$folder"
cd "$folder"
if ! cmp -s package-lock.json node_modules/.installed; then
  "$npm" ci --ignore-scripts --no-audit --no-fund --silent
  cp package-lock.json node_modules/.installed
fi
KEL_PEER=$program exec "$node" --test interop.test.mjs
