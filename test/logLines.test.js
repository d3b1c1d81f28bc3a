'use strict';
// Each row names a line a scripted run must produce, and the only level and component it may carry.
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir, modulePath } = require('./helpers');

const dir = scriptDir({
  'fine.js': `
    _setTimer(false, () => {}, 1);
    function connect() { _initNetworking(args.port, '127.0.0.1'); }
    function ask() { _sendSync(7, JSON.stringify({ messageId: 7, op: 'echo' }) + '\\n'); }
    function badNoWait() { _sendSyncNoWait(Symbol('id'), 'x'); }
    function missingModule() { keshRequire('./absent', __dirname); }
    function fails() { throw new Error('run-function boom'); }`,
  'throws.js': `throw new Error('main boom');`,
  'syntax.js': `function (`,
});

// [level, component, text or pattern]; a text is matched whole, a pattern anywhere.
const V = (id, text) => `Vuser [${id}] ${text}`;
const ROWS = [
  ['Info', 'KeshLogger', 'called to set Log level with the following state: debug'],
  ...['initialize', 'start hook called to finish', 'thread started', 'closing thread'].map((t) => ['Debug', 'KeshFactory', V(1, t)]),
  ...['thread start', 'Started thread', 'Isolate init', 'finished script initialization successfully', 'thread stop',
    'finished thread execution', 'starting pending function call for fails with param '].map((t) => ['Debug', 'VuserThread', V(1, t)]),
  ['trace', 'VuserThread', V(1, 'Running event loop')],
  ['Debug', 'timers', V(1, 'calling timer [0] callback')],
  ...['connected to Pelmare', 'waiting for response from request id: 7', 'finished waiting for response from request 7',
    'closing tcp connection'].map((t) => ['Debug', 'NetworkManager', V(1, t)]),
  ['Error', 'NetworkManager', V(1, 'The message id is not a invalid number')],
  ['Error', 'Require', /^Require function couldn't resolve path for the file \[\.\/absent\]/],
  ['Error', 'VuserThread', /^Error calling Vuser function: .*run-function boom/],
  ['Error', 'VuserThread', "Can't find the requested function nowhere in user script"],
  // A script that throws: the rejected start is its Error line, the details a trace; a syntax
  // error has its own Error line first.
  ['trace', 'VuserThread', /^Vuser \[2\] failed during script initialization \{.*main boom/],
  ['Error', 'VuserThread', /^Vuser \[3\] Error compiling the script \{.*SyntaxError/],
  ['trace', 'VuserThread', /^Vuser \[3\] failed during script initialization \{.*SyntaxError/],
  ...[V(2, 'thread fail to start'), V(3, 'thread fail to start'), 'no active thread for Vuser id 9'].map((t) => ['Error', 'KeshFactory', t]),
  ['Debug', 'KeshFactory', 'finalizing destruction of Vuser(s) thread(s)'],
];

test('each line of a scripted run has its level and component', () => {
  const script = (name) => JSON.stringify(path.join(dir, name));
  const r = scenario(`
    const lines = [];
    k.onLogMessage((line, level) => lines.push([level, line]));
    k.setLogLevel('debug');
    const seen = (text) => until(() => lines.some(([, l]) => l.includes(text)), text);
    (async () => {
      const service = await require(${JSON.stringify(path.join(modulePath, 'tools', 'pelmare'))}).start();
      k.createKeshThread(1, ${script('fine.js')}, JSON.stringify({ port: service.port }));
      k.createKeshThread(2, ${script('throws.js')}, '{}');
      k.createKeshThread(3, ${script('syntax.js')}, '{}');
      for (const id of [1, 2, 3]) await k.startKeshThread(id).catch(() => {});
      for (const [call, wait] of [['connect', 'connected to Pelmare'], ['ask', 'finished waiting'],
        ['badNoWait', 'not a invalid number'], ['missingModule', 'resolve path'],
        ['fails', 'run-function boom'], ['nowhere', "Can't find"]]) {
        k.runFunctionFromScript(1, call, '');
        await seen(wait);
      }
      try { k.runFunctionFromScript(9, 'x', ''); } catch {}
      for (const id of [1, 2, 3]) k.stopKeshThread(id);
      await seen('Vuser [1] finished thread execution');
      await seen('Vuser [1] closing tcp connection');
      await service.close();
      k.destroyKeshThreads();
      process.stdout.write('LINES' + JSON.stringify(lines) + '\\n');
    })();`);
  const match = /LINES(.*)\n/.exec(r.stdout);
  assert.ok(match, r.stdout + r.stderr);
  // "Component - (thread id) text", or "(thread id) text" without a component.
  const seen = JSON.parse(match[1]).map(([level, line]) => {
    const m = /^(?:(.*?) - )?\(\d+\) ([^]*)$/.exec(line);
    return { level, component: m ? (m[1] ?? '') : '?', text: m ? m[2] : line };
  });
  const wrong = [];
  for (const [level, component, text] of ROWS) {
    const hits = seen.filter((s) => (typeof text === 'string' ? s.text === text : text.test(s.text)));
    const off = hits.filter((s) => s.level !== level || s.component !== component);
    if (hits.length === 0 || off.length > 0) {
      wrong.push(`${level} ${component} ${text}: ` + (hits.length ? off.map((s) => `${s.level} ${s.component}`).join(', ') : 'missing'));
    }
  }
  assert.deepStrictEqual(wrong, [], wrong.join('\n') + '\n' + r.stderr);
});
