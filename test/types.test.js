'use strict';
// The declarations check scripts as an editor would.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { scriptDir } = require('./helpers');

const root = path.join(__dirname, '..');
const tsc = (project) => spawnSync(process.execPath, [require.resolve('typescript/bin/tsc'), '--pretty', 'false', '-p', project],
  { encoding: 'utf8', timeout: 60000 });
const lib = (name) => JSON.stringify(path.join(root, 'lib', name));

test('the typed example compiles with tsc --noEmit', () => {
  const r = tsc(path.join(root, 'examples', 'tsconfig.json'));
  assert.strictEqual(r.status, 0, r.stdout + r.stderr);
});

test('mistakes in a Vuser script and in a runner are reported at their lines', () => {
  const mistakes = {
    'script.js': [
      `/// <reference path=${lib('vuser-globals.d.ts')} />`,
      `/** @type {import(${lib('vuser')})} */`,
      `const kesh = keshRequire(${lib('vuser.js')}, __dirname);`,
      'setTimeout(() => {}, 5);', // 4: not in a Vuser
      "console.log('a', 'b');", // 5: one argument only
      '_setTimer(1, () => {}, 5);', // 6: repeat is a boolean
      'args.service.port.toUpperCase();', // 7: a number
      "kesh.send({ op: 'echo' }, { timeout: 5 });", // 8: timeoutMs
      "kesh.measure('x', () => 1).then;", // 9: not a promise
      'vuser_id.toFixed();', // 10: a string
    ],
    'runner.js': [
      `const kesh = require(${lib('index.js')});`,
      "kesh.setLogLevel('verbose');", // 2
      'kesh.startKeshThread(1).then((text) => text.toFixed());', // 3
    ],
  };
  const files = Object.fromEntries(Object.entries(mistakes).map(([name, lines]) => [name, `// @ts-check\n${lines.join('\n')}\n`]));
  files['tsconfig.json'] = JSON.stringify({
    compilerOptions: { allowJs: true, checkJs: true, noEmit: true, strict: true, target: 'es2022', lib: ['es2022'], types: [] },
    files: Object.keys(mistakes),
  });
  const r = tsc(path.join(scriptDir(files), 'tsconfig.json'));
  const found = [...r.stdout.matchAll(/(\w+\.js)\((\d+),\d+\): error (TS\d+)/gm)].map((m) => `${m[1]}:${m[2] - 1} ${m[3]}`);
  assert.deepStrictEqual(found, [
    'runner.js:2 TS2345', 'runner.js:3 TS2551',
    'script.js:4 TS2304', 'script.js:5 TS2554', 'script.js:6 TS2345', 'script.js:7 TS2339',
    'script.js:8 TS2561', 'script.js:9 TS2339', 'script.js:10 TS2551',
  ], r.stdout);
});
