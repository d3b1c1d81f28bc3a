#!/usr/bin/env node
// Builds the test targets, then runs the GoogleTest suite through ctest and the node tests.
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const root = path.resolve(__dirname, '..');
const sanitize = process.env.KESH_SANITIZE === '1';
const buildDir = path.join(root, sanitize ? 'build-sanitize' : 'build');

function run(cmd, args, env) {
  const r = spawnSync(cmd, args, { stdio: 'inherit', cwd: root, env: { ...process.env, ...env } });
  return r.status ?? 1;
}

let status = run(process.execPath, [path.join(__dirname, 'build.js'), '--tests']);
if (status !== 0) process.exit(status);

const ctest = run('ctest', ['--test-dir', buildDir, '--output-on-failure']);

const testFiles = fs.readdirSync(path.join(root, 'test'))
  .filter((f) => f.endsWith('.test.js'))
  .map((f) => path.join('test', f));
const nodeTests = run(process.execPath, ['--test', ...testFiles], { KESH_BUILD_DIR: buildDir });

process.exit(ctest !== 0 ? ctest : nodeTests);
