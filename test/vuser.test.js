'use strict';
const test = require('node:test');
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

const dir = scriptDir({
  'ok.js': `console.log(JSON.stringify({ id: vuser_id, args, dir: __dirname,
    file: __filename, global, same: global === this })); keshConsole('from script', 'Custom');
    console.log(); console.log(1, 2);
    try { console.log(''); } catch (e) { console.log('caught ' + typeof e + ' ' + e); }
    for (const args of [['x'], ['x', 1]]) try { keshConsole(...args); } catch (e) { console.log(e.constructor.name + ' ' + e.message); }`,
  'syntax.js': 'var x = ;',
  'throws.js': `throw new Error('boom');`,
  'rejects.js': `Promise.reject(new Error('nope'));`,
  'pending.js': 'new Promise(() => {});',
  'exits.js': 'process.exit(3);',
});
const p = (name) => path.join(dir, name);
const json = JSON.stringify;

test('start outcomes: fulfilled, rejected with a text, and every thread joins; console argument rules', () => {
  const names = ['ok.js', 'syntax.js', 'throws.js', 'rejects.js', 'pending.js', 'exits.js'];
  const r = scenario(`
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    k.setLogLevel('debug'); // the reason of a failed start is a trace line
    const names = ${json(names.map(p))};
    const id = (i) => (i === 0 ? -1 : i);
    names.forEach((n, i) => k.createKeshThread(i === 0 ? 4294967295 : i, n, i === 0 ? '{"a":[1]}' : 'null'));
    Promise.allSettled(names.map((n, i) => k.startKeshThread(id(i)))).then((r) => {
      console.log('OUT' + JSON.stringify(r.map((x) => [x.status, x.value ?? x.reason])));
      names.forEach((n, i) => k.stopKeshThread(id(i)));
      k.stopKeshThread(1); // a second stop
      setTimeout(() => { // main-thread lines reach the callback on a later turn
        k.destroyKeshThreads();
        console.log('LINES' + JSON.stringify(lines));
      }, 20);
    });`);
  assert.strictEqual(r.status, 0, r.stderr);
  assert.deepStrictEqual(JSON.parse(/OUT(.*)\n/.exec(r.stdout)[1]), [4294967295, 1, 2, 3, 4, 5].map((id) =>
    (id >= 1 && id <= 3 ? ['rejected', `Vuser [${id}] thread fail to start`] : ['fulfilled', `Vuser [${id}] thread started`])));
  assert.deepStrictEqual(JSON.parse(/\{"id".*\n/.exec(r.stdout)[0]),
    { id: '4294967295', args: { a: [1] }, dir: dir + '/', file: p('ok.js'), global: {}, same: false });
  const lines = JSON.parse(/LINES(.*)\n/.exec(r.stdout)[1]);
  // The last two: a second stop, and the stop of a Vuser that ended itself, are logged and change nothing.
  for (const line of [/^Custom \(\d+\) from script$/, /Vuser \[5\] process exit requested with code 3/,
    /^trace VuserThread - \(\d+\) Vuser \[2\] failed during script initialization .*boom/,
    /^Error VuserThread - \(\d+\) Vuser \[1\] blocked another closing request$/,
    /^Error VuserThread - \(\d+\) Vuser \[5\] blocked another closing request$/]) assert.ok(lines.some((l) => line.test(l)), String(line));
  for (const line of [/\}\n\nconsole\.log - Expects only 1 argument\.\n/,
    /caught string can't convert object passed to console log to string\n/,
    /TypeError keshConsole - Expects 2 arguments: message, LogLevel\n/, /TypeError keshConsole - The arguments are from incorrect type\n/]) assert.match(r.stdout, line);
});

test('commands out of order and bad scripts are refused without touching a thread; exit is clean with 50 Vusers running', () => {
  const copy = p('copy.js');
  fs.writeFileSync(copy, 'globalThis.n = 1;');
  const r = scenario(`
    const t = (f) => { try { f(); console.log('ok'); } catch (e) { console.log('ERR ' + e.message); } };
    t(() => k.createKeshThread(1, ${json(p('missing.js'))}, '{}'));
    t(() => k.createKeshThread(1, ${json(p('noext'))}, '{}'));
    t(() => k.createKeshThread(1, ${json(path.relative(process.cwd(), p('pending.js')))}, 'not json'));
    t(() => k.stopKeshThread(1));
    const started = k.startKeshThread(1);
    t(() => k.startKeshThread(1));
    t(() => k.destroyKeshThreads());
    started.catch((e) => {
      console.log('REJ ' + e);
      k.stopKeshThread(1);
      // Fifty Vusers of one script: the second and later read no file.
      const ids = Array.from({ length: 50 }, (_, i) => i + 2);
      k.createKeshThread(2, ${json(copy)}, '{}');
      require('fs').renameSync(${json(copy)}, ${json(copy + '.gone')});
      ids.slice(1).forEach((id) => k.createKeshThread(id, ${json(copy)}, '{}'));
      return Promise.all(ids.map((id) => k.startKeshThread(id)));
    }).then((r) => { console.log('STARTED ' + r.length); process.exit(0); });`, { timeout: 60000 });
  assert.deepStrictEqual([r.status, r.signal], [0, null], r.stderr);
  assert.deepStrictEqual(r.stdout.split('\n').filter((l) => /^(ok|ERR|REJ|STARTED)/.test(l)), [
    `ERR createKeshThread: script file not found: ${p('missing.js')}`,
    `ERR createKeshThread: the script path must name a readable .js file: ${p('noext')}`,
    'ok', 'ERR Vuser [1] was never started', 'ERR Vuser [1] was already started',
    'ERR destroyKeshThreads: stop these Vusers first: 1', 'REJ Vuser [1] thread fail to start', 'STARTED 50',
  ]);
  assert.match(r.stdout, /failed during user initialization args is not valid JSON/);
});
