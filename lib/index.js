'use strict';
// Loads the native add-on built by `npm install`. KESH_BUILD_DIR points at another build (tests, sanitizers).
const path = require('node:path');

const buildDir = process.env.KESH_BUILD_DIR || path.join(__dirname, '..', 'build');
const addon = require(path.join(buildDir, 'ostrale-kesh.node'));

// The host crashes at exit while Vuser threads still run, so every Vuser started through this
// module and not yet stopped is stopped when the process exits, however it exits.
const running = new Set();
const idOf = (id) => Number(BigInt.asUintN(32, BigInt(Math.trunc(Number(id) || 0))));

module.exports = {
  ...addon,
  startKeshThread(id, ...rest) {
    const promise = addon.startKeshThread(id, ...rest);
    running.add(idOf(id));
    return promise;
  },
  stopKeshThread(id, ...rest) {
    const result = addon.stopKeshThread(id, ...rest);
    running.delete(idOf(id));
    return result;
  },
};

process.on('exit', () => {
  for (const id of running) {
    try {
      addon.stopKeshThread(id);
    } catch {
      // never started: nothing to do
    }
  }
  running.clear();
});
