'use strict';
// The Vuser-side library: what a Vuser script loads with keshRequire to talk to the service
// without handling message ids, line ends or the queue of script calls itself.
//
//   const pelmare = keshRequire('<path of this file>');
//   pelmare.connect(port);
//   const answer = await pelmare.send({ op: 'echo', data: 1 });
//   await pelmare.measure('echo', () => pelmare.send({ op: 'echo' }));   // counted by kesh-run

const requestReport = require('./requestReport.js');

let nextId = 0;
let connected = false;

const now = typeof performance === 'object' ? () => performance.now() : () => Date.now();

// A failed request, with the kind under which the runner counts it ("check", "timeout", ...).
class RequestError extends Error {
  constructor(kind, message) {
    super(message);
    this.name = 'RequestError';
    this.kind = kind;
  }
}

// Requests with a time-out, by message id. One repeating timer checks them all, rather than a
// timer per request: every timer keeps its record for the Vuser's life.
const deadlines = new Map();
let sweeper = null;

function sweep() {
  const time = now();
  for (const [messageId, waiting] of deadlines) {
    if (waiting.at > time) continue;
    deadlines.delete(messageId);
    waiting.reject(new RequestError('timeout', `no answer within ${waiting.ms} ms`));
  }
}

function report(kind, ms, error) {
  keshConsole(requestReport.format(kind, ms, error), 'Info');
}

// Ids the library chooses: positive, 32-bit, and not reused before two billion requests.
function takeId() {
  nextId = nextId >= 0x7fffffff ? 1 : nextId + 1;
  return nextId;
}

function frame(payload) {
  const messageId = takeId();
  const body = typeof payload === 'object' && payload !== null ? payload : { data: payload };
  return { messageId, text: `${JSON.stringify({ messageId, ...body })}\n` };
}

module.exports = {
  // Blocks until the connection stands. Answers are delivered through the queue of script calls,
  // so the queue is drained from here on.
  connect(port, host = '127.0.0.1') {
    _initNetworking(port, host);
    _enableRunningAsyncCallbacks();
    connected = true;
  },

  get connected() {
    return connected;
  },

  // A promise of the parsed answer (undefined when the answer is no JSON). With `timeoutMs`, it
  // rejects with a RequestError of kind "timeout" when no answer came in time (checked every
  // 50 ms, so it may be that much late).
  send(payload, { timeoutMs } = {}) {
    const { messageId, text } = frame(payload);
    return new Promise((resolve, reject) => {
      if (timeoutMs === undefined) {
        _send(messageId, text, resolve);
        return;
      }
      deadlines.set(messageId, { at: now() + timeoutMs, ms: timeoutMs, reject });
      if (sweeper === null) sweeper = _setTimer(true, sweep, 50);
      _send(messageId, text, (answer) => {
        deadlines.delete(messageId);
        resolve(answer);
      });
    });
  },

  // The parsed answer, as the plain result; the script waits for it.
  sendSync(payload) {
    const { messageId, text } = frame(payload);
    return _sendSync(messageId, text);
  },

  // Returns once the bytes are written; an answer, if one comes, is dropped.
  sendNoWait(payload) {
    const { messageId, text } = frame(payload);
    _sendSyncNoWait(messageId, text);
  },

  // Forgets every request still waiting: their promises never settle.
  forgetPending() {
    _clearResponsePendingMessages();
  },

  // Opens a socket that the service holds for this script. `onMessage` gets each of its lines,
  // parsed, or as text when it is no JSON. The service's close line closes it here too.
  async openSocket(socketId, onMessage) {
    let closing = false;
    const closed = _registerNewBareSocket(socketId, (line) => {
      if (line !== null && typeof line === 'object' && line.event === 'close') {
        // After our own close the service's close line only ends the registration: had it
        // ended before, the line would find no callback.
        if (closing) _unRegisterNewBareSocket(socketId);
        else _disconnectBareSocket(socketId, line);
      } else {
        onMessage(line);
      }
    });
    const answer = await module.exports.send({ op: 'socketOpen', socketId });
    if (answer && answer.error) {
      _unRegisterNewBareSocket(socketId);
      throw new Error(`cannot open socket ${socketId}: ${answer.error}`);
    }
    return {
      id: socketId,
      // Settled once the socket has closed, with what closed it.
      closed,
      // Resolves when release() is called, rejects with undefined after `timeoutMs` (negative:
      // no time-out). One wait at a time.
      wait: (timeoutMs) => _newWebSocketBarrier(socketId, timeoutMs),
      release: (error) => _stopBareSocket(socketId, error !== undefined, error),
      waitForClose: (timeoutMs = -1) => _waitForBareSocketClosure(socketId, timeoutMs),
      async close() {
        closing = true;
        const closeAnswer = await module.exports.send({ op: 'socketClose', socketId });
        const value = await _disconnectBareSocket(socketId, 'closed by the script');
        // No close line follows a refused close.
        if (closeAnswer && closeAnswer.error) _unRegisterNewBareSocket(socketId);
        return value;
      },
    };
  },

  // A promise resolved after `ms` milliseconds, on the Vuser's own timers.
  sleep(ms) {
    return _waitForTimer(_setTimer(false, () => {}, ms));
  },

  // Milliseconds from an arbitrary start, with a fraction.
  now,

  RequestError,

  // Throws a RequestError of kind "check" unless `condition` holds.
  check(condition, message) {
    if (!condition) throw new RequestError('check', message);
  },

  // Tells kesh-run that a request of `kind` took `ms`, and failed with an error of kind `error`
  // when one is given.
  report,

  // Runs `request` and reports it under `kind`: its time until it returned or, for a promise,
  // until that settled. A throw or rejection is reported as an error of the error's own `kind`
  // (RequestError) or "exception", and passed on. Returns what `request` returned.
  measure(kind, request) {
    const started = now();
    const failed = (error) => {
      report(kind, now() - started, (error && typeof error.kind === 'string' && error.kind) || 'exception');
      throw error;
    };
    let result;
    try {
      result = request();
    } catch (error) {
      failed(error);
    }
    if (result !== null && typeof result === 'object' && typeof result.then === 'function') {
      return result.then((value) => {
        report(kind, now() - started);
        return value;
      }, failed);
    }
    report(kind, now() - started);
    return result;
  },
};
