'use strict';
// The build follows the host's V8: the language standard comes from its headers, and a V8 whose
// inspector layout we have not declared stops the build with the supported versions named,
// instead of building an add-on that would call the wrong vtable slots.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const root = path.join(__dirname, '..');
const supportedText = '11.3 (Node.js 20), 12.4 (Node.js 22), 13.6 (Node.js 24)';

// Headers of a pretend host with the given V8 version; only what CMake and the version check read.
function fakeHost(major, minor) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-host-'));
  for (const f of ['node.h', 'v8.h', 'uv.h']) fs.writeFileSync(path.join(dir, f), '');
  fs.writeFileSync(path.join(dir, 'v8-version.h'),
    `#define V8_MAJOR_VERSION ${major}\n#define V8_MINOR_VERSION ${minor}\n#define V8_BUILD_NUMBER 1\n`);
  return dir;
}

function configure(major, minor) {
  const headers = fakeHost(major, minor);
  const build = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-configure-'));
  try {
    const r = spawnSync('cmake', ['-S', root, '-B', build, `-DNODE_INCLUDE_DIR=${headers}`],
      { encoding: 'utf8' });
    return { status: r.status, output: r.stdout + r.stderr };
  } finally {
    fs.rmSync(headers, { recursive: true, force: true });
    fs.rmSync(build, { recursive: true, force: true });
  }
}

test('each supported V8 gets its language standard; any other V8 stops the build', () => {
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
});

test('the inspector declarations refuse a V8 they were not written for', () => {
  const headers = fakeHost(12, 5);
  try {
    const r = spawnSync('g++', ['-std=c++17', '-fsyntax-only', '-x', 'c++', `-I${headers}`,
      path.join(root, 'sources', 'inspector', 'v8InspectorInterface.h')], { encoding: 'utf8' });
    assert.notStrictEqual(r.status, 0);
    assert.match(r.stderr, /#error .*declares V8 11\.3 \(Node\.js 20\), 12\.4 \(Node\.js 22\) and 13\.6/);
  } finally {
    fs.rmSync(headers, { recursive: true, force: true });
  }
});
