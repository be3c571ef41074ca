#!/usr/bin/env bash
# Sets up the machine, builds what the cluster render demo needs and runs it: a cluster service on
# a loopback port starts two render servers, each renders half of a frame, and the frame is
# written to frame.png. Arguments go to klClusterRender (see --help).
set -euo pipefail
cd "$(dirname "$0")/.."
echo "== setting up (Debian packages)"
scripts/setup.sh
echo "== building the service, the render server and the render client"
scripts/build.sh release KALDClusterService KALDClusterServer klClusterRender
echo "== rendering"
exec build/release/bin/klClusterRender "$@"
