#!/usr/bin/env bash
# Installs a build into a temporary prefix and uses it as a user would: the installed velmoria
# finds its plug-ins without --plugin-dir, and examples/consumer builds against the installed
# CMake package (find_package(Velmoria CONFIG)) and runs the demo model through it.
#   install_test.sh <build folder> <source folder>
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for path in bin/velmoria lib/libVelmoriaHost.so lib/libVelmoriaML.so lib/velmoria/plugins/libVelmoriaML.so \
  lib/velmoria/plugins/libVelmoriaTorch.so include/velmoria/ml/model/MachineLearningModel.h \
  lib/cmake/Velmoria/VelmoriaConfig.cmake share/doc/velmoria/README.md; do
  [ -e "$prefix/$path" ] || { echo "install_test: $path is missing from the installed prefix" >&2; exit 1; }
done

# Nothing of the build folder is reachable: the installed files must stand on their own.
engines=$(env -u VELMORIA_PLUGIN_PATH "$prefix/bin/velmoria" info engines)
grep -q torch <<<"$engines" || { echo "install_test: installed velmoria lists no torch engine:" >&2; echo "$engines" >&2; exit 1; }

cmake -S "$source/examples/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/velmoria-consumer" "$source/examples/demo/demo-image.nii.gz" "$source/examples/demo/demo.yaml" \
  "$work/prediction.nii.gz"
[ -s "$work/prediction.nii.gz" ] || { echo "install_test: the consumer wrote no prediction" >&2; exit 1; }
echo "install_test: installed, consumer built and ran"
