// An example Vuser script. The runner calls `step` now and then; each step paces itself with a
// timer and reports through the log channel when it is done.
_enableRunningAsyncCallbacks();
let steps = 0;

console.log(`Vuser ${vuser_id} says hello from ${__filename}`);
keshConsole(`Vuser ${vuser_id} started with args ${JSON.stringify(args)}`, 'Info');

function step(param) {
  const number = ++steps;
  const started = Date.now();
  const think = 20 + Math.floor(Math.random() * 60);
  _setTimer(false, () => {
    keshConsole(`Vuser ${vuser_id} step ${number} with ${JSON.stringify(param)} ` +
      `done after ${Date.now() - started} ms`, 'Info');
  }, think);
}
