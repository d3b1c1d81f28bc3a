// @ts-check
/// <reference path="../lib/vuser-globals.d.ts" />
// A load script for kesh-run, one copy per Vuser: sign in once, then visit the shop again and
// again: browse a page, search (the service takes its time to answer), and follow a live feed on
// a bare socket until three updates came. Each step is followed by think time, every answer is
// checked, and every request is reported to the runner under its kind.
//
//   node bin/kesh-run.js --vusers 10 --seconds 10 examples/load.js
//   args (--args '{"thinkMs": 25, "timeoutMs": 2000}'): mean think time, time-out of an answer
'use strict';

/** @type {import('../lib/vuser')} */
const kesh = keshRequire('../lib/vuser.js', __dirname);

const me = Number(vuser_id);
const thinkMs = typeof args.thinkMs === 'number' ? args.thinkMs : 25;
const timeoutMs = typeof args.timeoutMs === 'number' ? args.timeoutMs : 2000;
const feedUpdates = 3;

kesh.connect(args.service.port, args.service.host);

/** @param {import('../lib/vuser').Answer | undefined} answer @param {unknown} sent @param {string} what */
function checkAnswer(answer, sent, what) {
  kesh.check(answer !== undefined, `${what}: the answer is no JSON`);
  if (answer.error !== undefined) throw new kesh.RequestError('service', `${what}: ${answer.error}`);
  kesh.check(JSON.stringify(answer.data) === JSON.stringify(sent), `${what}: the answer carries other data`);
}

/** @typedef {Record<string, unknown> & { data: unknown }} Request */

/** @param {Request} request @param {string} what */
async function ask(request, what) {
  const answer = await kesh.send(request, { timeoutMs });
  checkAnswer(answer, request.data, what);
  return answer;
}

// A request whose answer echoes what was sent, timed under `kind`.
/** @param {string} kind @param {Request} request */
function call(kind, request) {
  return kesh.measure(kind, () => ask(request, kind));
}

// Time until the service's feed has pushed its updates to a socket of our own; a barrier holds
// the script until the last one came (or the time-out).
/** @param {number} visit */
function followFeed(visit) {
  const socketId = `feed_${me}_${visit}`;
  return kesh.measure('feed', async () => {
    let seen = 0;
    /** @type {string | undefined} */
    let problem;
    /** @type {import('../lib/vuser').BareSocket} */
    const socket = await kesh.openSocket(socketId, (line) => {
      if (line.seq !== seen || JSON.stringify(line.data) !== JSON.stringify({ visit, update: seen })) {
        problem = `feed update ${seen} is ${JSON.stringify(line)}`;
      }
      seen += 1;
      if (seen === feedUpdates) socket.release();
    });
    const released = socket.wait(timeoutMs);
    const lines = Array.from({ length: feedUpdates }, (_, update) => ({ visit, update }));
    await ask({ op: 'socketPush', socketId, lines, intervalMs: 5, data: visit }, 'feed');
    await released.catch(() => {
      throw new kesh.RequestError('timeout', `feed: ${seen} of ${feedUpdates} updates within ${timeoutMs} ms`);
    });
    await socket.close();
    kesh.check(problem === undefined, `${problem}`);
  });
}

function think() {
  return kesh.sleep(Math.round(thinkMs * (0.5 + Math.random())));
}

/** @param {number} visit */
async function visitShop(visit) {
  await call('browse', { op: 'echo', data: { page: ['home', 'offers', 'cart'][visit % 3], visit } });
  await think();
  await call('search', { op: 'delay', ms: 5 + (visit % 4) * 5, data: { query: `lamp ${visit}` } });
  await think();
  await followFeed(visit);
  await think();
}

// Signing in blocks the script: a Vuser that cannot sign in fails its start.
kesh.measure('signIn', () => {
  const sent = { user: `user${me}` };
  checkAnswer(kesh.sendSync({ op: 'echo', data: sent }), sent, 'signIn');
});

(async () => {
  for (let visit = 1; ; visit++) {
    try {
      await visitShop(visit);
    } catch {
      // Already counted by measure(); the next visit starts afresh after a pause.
      await think();
    }
  }
})();
