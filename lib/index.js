'use strict';
// Loads the native add-on that `npm install` built for the running Node.js line (build/node-<major>).
// KESH_BUILD_DIR points at another build (tests, sanitizers).
// The add-on itself joins every Vuser still running when the process exits, however it exits.
const path = require('node:path');
const { buildDir } = require('./buildDir');

module.exports = require(path.join(buildDir(), 'ostrale-kesh.node'));
