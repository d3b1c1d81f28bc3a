#!/usr/bin/env node
// Builds the test targets, then runs the GoogleTest suite through ctest and the node tests.
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { lineBuildDir } = require('../lib/buildDir');

const root = path.resolve(__dirname, '..');
// KESH_SANITIZE=1: AddressSanitizer and UBSan; KESH_SANITIZE=thread: ThreadSanitizer.
const sanitize = process.env.KESH_SANITIZE === '1';
const threads = process.env.KESH_SANITIZE === 'thread';
const buildDir = lineBuildDir({ sanitize, threads });

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
const nodeEnv = { KESH_BUILD_DIR: buildDir };
// node itself is not instrumented: the sanitizer runtimes must be loaded before anything else.
const runtime = (name) =>
  spawnSync('g++', [`-print-file-name=${name}`], { encoding: 'utf8' }).stdout.trim();
if (sanitize) {
  nodeEnv.LD_PRELOAD = [runtime('libasan.so'), runtime('libubsan.so')].join(' ');
  nodeEnv.ASAN_OPTIONS = 'detect_leaks=0'; // the host keeps its isolate alive at exit
}
if (threads) {
  nodeEnv.LD_PRELOAD = runtime('libtsan.so');
  // What the host does inside itself is not ours to judge, and its own locks are invisible.
  nodeEnv.TSAN_OPTIONS = 'ignore_noninstrumented_modules=1 exitcode=66';
}
const nodeTests = run(process.execPath, ['--test', ...testFiles], nodeEnv);

process.exit(ctest !== 0 ? ctest : nodeTests);
