'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scriptDir, driveVuser } = require('./helpers');

const dir = scriptDir({
  'sockets.js': `
    const say = (...a) => console.log('S ' + a.map((x) => typeof x === 'string' ? x : String(JSON.stringify(x))).join(' '));
    const attempt = (label, f) => { try { return f(); } catch (e) { say(label, e.message); } };
    const req = (id, op, extra = {}) => JSON.stringify({ messageId: id, op, ...extra }) + '\\n';
    const settled = (label, p) => p.then((v) => say(label, 'resolved', v), (e) => say(label, 'rejected', e));
    _initNetworking(args.port, '127.0.0.1');
    _enableRunningAsyncCallbacks();
    let n = 100;
    const ask = (op, extra) => _sendSync(++n, req(n, op, extra));

    function lines() {
      const closed = _registerNewBareSocket('ws_a', (line) => say('a got', typeof line === 'string' ? 'text ' + line : line.data ?? line.event));
      attempt('same key', () => _registerNewBareSocket('ws_a', () => say('second callback')));
      settled('a closure', closed);
      ask('socketOpen', { socketId: 'ws_a' });
      // Socket lines and answers in one stream keep their order.
      _send(1, req(1, 'socketPush', { socketId: 'ws_a', lines: [1, 2], rawLines: ['{"messageId":-1,"socketId":"ws_a","responseType":1, no json'] }), () => say('answer 1'));
      _send(2, req(2, 'echo'), () => say('answer 2'));
    }
    function closeAndLine() {
      _disconnectBareSocket('ws_a', 'bye', (v) => say('disconnect callback', v));
      ask('socketPush', { socketId: 'ws_a', lines: ['after closure'] });
    }
    function cleanUp() { _unRegisterNewBareSocket('ws_a'); _unRegisterNewBareSocket('ws_a'); }
    function pushAfterCleanUp() { ask('socketPush', { socketId: 'ws_a', lines: ['after clean-up'] }); }

    function barriers() {
      _registerNewBareSocket('b', () => {});
      settled('timed out', _newWebSocketBarrier('b', 5));
      attempt('second barrier', () => _newWebSocketBarrier('b', 5));
    }
    function barrierAgain() {
      _stopBareSocket('b', false);
      settled('error object', _newWebSocketBarrier('b', -1));
      attempt('error without message', () => _stopBareSocket('b', true));
      _stopBareSocket('b', true, { code: 7 });
    }
    // Expiry and stop both queued before either settles: the second settle fails.
    function racePrepare() { _disableRunningAsyncCallbacks(); settled('race', _newWebSocketBarrier('b', 0)); }
    function raceStop() { _stopBareSocket('b', false); _enableRunningAsyncCallbacks(); }
    function closures() {
      const p = _registerNewBareSocket('c', () => {});
      say('same promise', _waitForBareSocketClosure('c', -1) === p);
      _waitForBareSocketClosure('c', 100000);
      settled('c closure', p);
      _disconnectBareSocket('c', { v: 1 }, (v) => say('c callback', v));
      _unRegisterNewBareSocket('c');
      _registerNewBareSocket('d', () => {});
      settled('d closure', _waitForBareSocketClosure('d', 5));
    }
    function clearAll() {
      _registerNewBareSocket('e', () => {});
      settled('e barrier', _newWebSocketBarrier('e', 5));
      _clearAllBareSockets();
      attempt('gone', () => _newWebSocketBarrier('e', 5));
      attempt('stop gone', () => _stopBareSocket('e', false));
    }
    function closeF() { _registerNewBareSocket('f', () => {}); _disconnectBareSocket('f', 'first'); }
    function afterClosure() {
      settled('f again', _waitForBareSocketClosure('f', -1));
      settled('f second disconnect', _disconnectBareSocket('f', 'second'));
    }`,
});

test('bare sockets: lines, barriers, closure and clean-up through the queue', () => {
  const r = driveVuser(path.join(dir, 'sockets.js'), [
    ['lines'], 60, ['closeAndLine'], 60, ['cleanUp'], 30, ['pushAfterCleanUp'], 30,
    ['barriers'], 40, ['barrierAgain'], 20, ['racePrepare'], 30, ['raceStop'], 30,
    ['closures'], 60, ['clearAll'], 30, ['closeF'], 30, ['afterClosure'], 30,
  ], { pelmare: true });
  assert.strictEqual(r.status, 0, r.stderr);
  const said = r.stdout.split('\n').filter((l) => l.startsWith('S ')).map((l) => l.slice(2));
  assert.deepStrictEqual(said, [
    'same key RegisterBareSocketConnection - you\'ve used this callback key before',
    'answer 1', 'a got 1', 'a got 2', 'a got text {"messageId":-1,"socketId":"ws_a","responseType":1, no json', 'answer 2',
    'disconnect callback bye', 'a closure resolved bye', 'a got after closure',
    'second barrier There is already one pending await on this websocket', 'timed out rejected undefined',
    'error without message wrong parameters passed to BreakBareSocketBarrier - error without error message',
    'error object rejected {"code":7}', 'race rejected undefined', 'same promise true',
    'c callback {"v":1}', 'c closure resolved {"v":1}', 'd closure resolved undefined',
    'gone Internal error: cannot find promise pair for websocket id',
    'stop gone 1: BreakBareSocketBarrier: cannot find promise pair for websocket id e',
    // The closure resolver is kept: a later wait gets the settled promise, a second disconnect changes nothing.
    'f again resolved first', 'f second disconnect resolved first',
  ]);
  const log = r.lines.join('\n');
  assert.match(log, /Internal warning: asked to delete socket with id: ws_a twice\./);
  assert.match(log, /No callback found for socket message for ws_id: ws_a : .*after clean-up/);
  assert.match(log, /Exception during async callback: .*Internal error: cannot resolve\/reject the promise for websocket id b/);
  assert.match(log, /The barrier of b has been already released due to timeout/);
  assert.doesNotMatch(log, /closing socket due to disconnection timeout.*\n.*closing socket with id c/);
});
