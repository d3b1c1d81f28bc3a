#!/usr/bin/env node
// Configures and builds the add-on with CMake against the headers of the Node.js running this script,
// into that line's own directory (build/node-<major>).
//   node scripts/build.js [--tests] [--sanitize]
// KESH_SANITIZE=1 builds with AddressSanitizer and UBSan, KESH_SANITIZE=thread with ThreadSanitizer.
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { lineBuildDir } = require('../lib/buildDir');

const root = path.resolve(__dirname, '..');
const args = new Set(process.argv.slice(2));
const threads = process.env.KESH_SANITIZE === 'thread';
const sanitize = args.has('--sanitize') || process.env.KESH_SANITIZE === '1';
const buildDir = lineBuildDir({ sanitize, threads });

const nodeHeaders = path.resolve(path.dirname(process.execPath), '..', 'include', 'node');
if (!fs.existsSync(path.join(nodeHeaders, 'node.h'))) {
  console.error(`ostrale-kesh: Node.js headers not found at ${nodeHeaders} ` +
    `(looked for node.h beside ${process.execPath}). Install the headers of this Node.js.`);
  process.exit(1);
}

function run(cmd, cmdArgs) {
  const r = spawnSync(cmd, cmdArgs, { stdio: 'inherit', cwd: root });
  if (r.error) {
    console.error(`ostrale-kesh: cannot run ${cmd}: ${r.error.message}`);
    process.exit(1);
  }
  if (r.status !== 0) process.exit(r.status ?? 1);
}

run('cmake', ['-S', root, '-B', buildDir,
  `-DNODE_INCLUDE_DIR=${nodeHeaders}`,
  `-DKESH_TESTS=${args.has('--tests') ? 'ON' : 'OFF'}`,
  `-DKESH_SANITIZE=${sanitize ? 'ON' : 'OFF'}`,
  `-DKESH_SANITIZE_THREAD=${threads ? 'ON' : 'OFF'}`]);
run('cmake', ['--build', buildDir, '--parallel', '2']);
