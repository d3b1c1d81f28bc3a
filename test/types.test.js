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
  // Each line with the error tsc must report there.
  const mistakes = {
    'script.js': [
      [`/// <reference path=${lib('vuser-globals.d.ts')} />`], [`/** @type {import(${lib('vuser')})} */`],
      [`const kesh = keshRequire(${lib('vuser.js')}, __dirname);`],
      ['setTimeout(() => {}, 5);', 'TS2304'], // not in a Vuser
      ["console.log('a', 'b');", 'TS2554'], // one argument only
      ['_setTimer(1, () => {}, 5);', 'TS2345'], // repeat is a boolean
      ['args.service.port.toUpperCase();', 'TS2339'], // a number
      ["kesh.send({ op: 'echo' }, { timeout: 5 });", 'TS2561'], // timeoutMs
      ["kesh.measure('x', () => 1).then;", 'TS2339'], // not a promise
      ['vuser_id.toFixed();', 'TS2551'], // a string
    ],
    'runner.js': [[`const kesh = require(${lib('index.js')});`], ["kesh.setLogLevel('verbose');", 'TS2345'],
      ['kesh.startKeshThread(1).then((text) => text.toFixed());', 'TS2551']],
  };
  const entries = Object.entries(mistakes);
  const files = Object.fromEntries(entries.map(([name, lines]) => [name, `// @ts-check\n${lines.map(([l]) => l).join('\n')}\n`]));
  files['tsconfig.json'] = JSON.stringify({
    compilerOptions: { allowJs: true, checkJs: true, noEmit: true, strict: true, target: 'es2022', lib: ['es2022'], types: [] },
    files: Object.keys(mistakes),
  });
  const r = tsc(path.join(scriptDir(files), 'tsconfig.json'));
  const found = [...r.stdout.matchAll(/(\w+\.js)\((\d+),\d+\): error (TS\d+)/gm)].map((m) => `${m[1]}:${m[2] - 1} ${m[3]}`);
  const expected = entries.flatMap(([name, lines]) => lines.flatMap(([, code], i) => (code ? [`${name}:${i + 1} ${code}`] : [])));
  assert.deepStrictEqual(found.sort(), expected.sort(), r.stdout);
});
