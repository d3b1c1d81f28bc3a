'use strict';
// Loads the native add-on built by `npm install`. KESH_BUILD_DIR points at another build (tests, sanitizers).
// The add-on itself joins every Vuser still running when the process exits, however it exits.
const path = require('node:path');

const buildDir = process.env.KESH_BUILD_DIR || path.join(__dirname, '..', 'build');
module.exports = require(path.join(buildDir, 'ostrale-kesh.node'));
