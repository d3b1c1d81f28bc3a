'use strict';
// A V8 whose inspector layout we have not declared stops the build, naming the supported ones.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const root = path.join(__dirname, '..');
const supportedText = '11.3 (Node.js 20), 12.4 (Node.js 22), 13.6 (Node.js 24)';

// Runs `f` with the headers of a pretend host: only what CMake and the version check read.
function withHost(major, minor, f) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-host-'));
  for (const name of ['node.h', 'v8.h', 'uv.h']) fs.writeFileSync(path.join(dir, name), '');
  fs.writeFileSync(path.join(dir, 'v8-version.h'),
    `#define V8_MAJOR_VERSION ${major}\n#define V8_MINOR_VERSION ${minor}\n#define V8_BUILD_NUMBER 1\n`);
  try { return f(dir); } finally { fs.rmSync(dir, { recursive: true, force: true }); }
}

const configure = (major, minor) => withHost(major, minor, (headers) => {
  const build = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-configure-'));
  try {
    const r = spawnSync('cmake', ['-S', root, '-B', build, `-DNODE_INCLUDE_DIR=${headers}`], { encoding: 'utf8' });
    return { status: r.status, output: r.stdout + r.stderr };
  } finally {
    fs.rmSync(build, { recursive: true, force: true });
  }
});

test('each supported V8 gets its language standard; any other V8 stops the build and the inspector header', () => {
  for (const [major, minor, standard] of [[11, 3, 17], [12, 4, 17], [13, 6, 20]]) {
    const r = configure(major, minor);
    assert.strictEqual(r.status, 0, r.output);
    assert.match(r.output, new RegExp(`Host V8 ${major}\\.${minor}: C\\+\\+${standard}`));
  }
  for (const [major, minor] of [[12, 5], [14, 0], [11, 30]]) {
    const r = configure(major, minor);
    assert.notStrictEqual(r.status, 0, `V8 ${major}.${minor} was accepted`);
    assert.ok(r.output.includes(`has V8 ${major}.${minor}`), r.output);
    assert.ok(r.output.replace(/\s+/g, ' ').includes(supportedText), r.output);
  }
  const r = withHost(12, 5, (headers) => spawnSync('g++', ['-std=c++17', '-fsyntax-only', '-x', 'c++', `-I${headers}`,
    path.join(root, 'sources', 'inspector', 'v8InspectorInterface.h')], { encoding: 'utf8' }));
  assert.notStrictEqual(r.status, 0);
  assert.match(r.stderr, /#error .*declares V8 11\.3 \(Node\.js 20\), 12\.4 \(Node\.js 22\) and 13\.6/);
});
