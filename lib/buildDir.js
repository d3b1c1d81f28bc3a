'use strict';
// Where the add-on for the running Node.js line lives. Each line has a directory of its own,
// since an add-on loads only into the line it was built for: building under Node.js 22 must not
// overwrite what Node.js 20 loads.
const path = require('node:path');

const root = path.join(__dirname, '..');

function lineBuildDir({ sanitize = false, threads = false } = {}) {
  const line = process.versions.node.split('.')[0];
  return path.join(root, sanitize ? 'build-sanitize' : threads ? 'build-tsan' : 'build', `node-${line}`);
}

// KESH_BUILD_DIR, when set, names another build (tests, sanitizers, benchmarks).
function buildDir() {
  return process.env.KESH_BUILD_DIR ? path.resolve(process.env.KESH_BUILD_DIR) : lineBuildDir();
}

module.exports = { lineBuildDir, buildDir };
