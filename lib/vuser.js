'use strict';
// The Vuser-side library: what a Vuser script loads with keshRequire to talk to the service
// without handling message ids, line ends or the queue of script calls itself.
//
//   const pelmare = keshRequire('<path of this file>');
//   pelmare.connect(port);
//   const answer = await pelmare.send({ op: 'echo', data: 1 });

let nextId = 0;
let connected = false;

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

  // A promise of the parsed answer (undefined when the answer is no JSON).
  send(payload) {
    const { messageId, text } = frame(payload);
    return new Promise((resolve) => _send(messageId, text, resolve));
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

  // A promise resolved after `ms` milliseconds, on the Vuser's own timers.
  sleep(ms) {
    return _waitForTimer(_setTimer(false, () => {}, ms));
  },
};
