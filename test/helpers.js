'use strict';
// Each scenario runs in a node process of its own: the logger's state is process-wide and
// one-way, and an exit must be observed from outside.
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const modulePath = path.join(__dirname, '..');

function scenario(body, { timeout = 30000 } = {}) {
  const code = `const k = require(${JSON.stringify(modulePath)});\n${body}`;
  const r = spawnSync(process.execPath, ['-e', code], { encoding: 'utf8', timeout });
  return { status: r.status, signal: r.signal, stdout: r.stdout, stderr: r.stderr };
}

function scriptDir(files) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-test-'));
  for (const [name, text] of Object.entries(files)) {
    fs.mkdirSync(path.dirname(path.join(dir, name)), { recursive: true });
    fs.writeFileSync(path.join(dir, name), text);
  }
  return dir;
}

module.exports = { scenario, scriptDir, modulePath };
