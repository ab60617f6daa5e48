#!/usr/bin/env bash
# Runs a command while holding the machine-wide build lock, so that several people (or
# agents) working in one tree never compile or run heavy tests at the same time on a
# two-core machine. Usage: scripts/locked.sh cmake --build build-dva --target test_dva
exec flock /tmp/zubimport-build.lock "$@"
