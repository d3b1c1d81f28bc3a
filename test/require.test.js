'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

// A Vuser script that requires each name and prints every outcome, under `label`, as one JSON line.
const reporter = (label, body) => `
  const out = {};
  const t = (key, f) => {
    try { out[key] = f(); } catch (e) { out[key] = { thrown: e instanceof Error ? e.constructor.name + ': ' + e.message : e }; }
  };
  const r = (name) => keshRequire(name, __dirname);
  ${body}
  console.log('RESULT' + JSON.stringify([${JSON.stringify(label)}, out]));`;

// Starts one Vuser per script, all at once; `between` runs after they started, before they stop.
function runVusers(scripts, between = '', { level = 'debug', ...options } = {}) {
  const r = scenario(`
    const lines = [];
    k.onLogMessage((l) => lines.push(l));
    k.setLogLevel(${JSON.stringify(level)});
    const scripts = ${JSON.stringify(scripts)};
    scripts.forEach((s, i) => k.createKeshThread(i + 1, s, '{}'));
    Promise.all(scripts.map((s, i) => k.startKeshThread(i + 1))).then(async () => {
      ${between}
      scripts.forEach((s, i) => k.stopKeshThread(i + 1));
      k.destroyKeshThreads();
      // The logger's close prints a line at the next turn: not inside the long line below.
      await sleep(50);
      console.log('LINES' + JSON.stringify(lines));
    }, (e) => { console.log('FAILED ' + e); k.destroyKeshThreads(); });`, options);
  assert.strictEqual(r.status, 0, r.stderr);
  assert.doesNotMatch(r.stdout, /FAILED/);
  const results = Object.fromEntries([...r.stdout.matchAll(/^RESULT(.*)$/gm)].map((m) => JSON.parse(m[1])));
  return { ...r, results, lines: JSON.parse(/^LINES(.*)$/m.exec(r.stdout)[1]) };
}

test('resolution (files, directories, package.json main, node_modules deepest first, core names) and module runs', () => {
  const dir = scriptDir({
    'resolve.js': reporter('resolve', `for (const n of ['./a', './b', './a.json', './data', './list.json', 'fs',
      'fs.js', './fs', 'deep', 'own', './nested', './nomain', './maindir', './idx', './idx2',
      ${JSON.stringify('/')} + __dirname.slice(1) + 'b.js', './missing']) t(n, () => r(n));`),
    'a': "module.exports = 'a'", 'a.js': "module.exports = 'a.js'", 'a.json': '"a.json"', 'b.js': "module.exports = 'b.js'",
    'b.json': '"b.json"', 'data.json': '[1, 2]', 'list.json': '[3, 4]', 'fs.js': "module.exports = 'local fs'",
    'node_modules/fs.js': "module.exports = 'modules fs'", 'node_modules/own.js': "module.exports = 'top own'",
    'node_modules/deep/index.js': "module.exports = { own: require('own'), mid: require('mid') }",
    'node_modules/deep/node_modules/own.js': "module.exports = 'deep own'",
    'node_modules/mid/package.json': '{"name": "mid", "main": "lib/start"}', 'node_modules/mid/lib/start.js': "module.exports = 'mid main'",
    'nested/package.json': '{"config": {"main": "inner.js"}, "main": "outer.js"}',
    'nested/inner.js': "module.exports = 'inner'", 'nested/outer.js': "module.exports = 'outer'",
    'nomain/package.json': '{"name": "nomain"}', 'nomain/index.js': "module.exports = 'index'",
    'node_modules/nomain.js': "module.exports = 'nomain from node_modules'",
    'maindir/package.json': '{"main": "sub"}', 'maindir/sub/index.js': "module.exports = 'sub'",
    'idx/index.js.json': "module.exports = 'index.js.json'", 'idx/index.json': '"index.json"',
    'idx2/index.js': "module.exports = 'index.js'", 'idx2/index.json': '"index.json"',
    'runs.js': reporter('runs', `
      t('five', () => r('./five')); t('once', () => [r('./once'), r('./once') === r('./once')]);
      t('throw1', () => r('./throws')); t('throw2', () => r('./throws')); t('restored', () => [__filename, __dirname]);
      t('bom', () => [r('./bom.json'), r('./bom.js')]); t('parent', () => r('./sub/mid')); t('badJson', () => r('./bad.json'));
      t('load', () => keshRequire('./load', __dirname, { x: 1 })); t('nullLoad', () => keshRequire('./five', __dirname, null));
      t('oneArg', () => keshRequire('./five'));
      for (const n of ['rejects', 'self', 'cycle1', 'syntax']) t(n, () => r('./' + n));
      t('notRestored', () => [__filename, __dirname]);`),
    'five.js': 'module.exports = 5', 'once.js': 'global.runs = (global.runs || 0) + 1; module.exports = { runs: global.runs };',
    'throws.js': "global.throws = (global.throws || 0) + 1; throw new Error('boom ' + global.throws);",
    'bom.json': '\uFEFF{"k": 1}', 'bom.js': "\uFEFFmodule.exports = 'bom js';",
    'sub/mid.js': "module.exports = { mid: [module.parent.filename, module.parent.path, module.filename, module.path], leaf: require('./leaf') };",
    'sub/leaf.js': 'module.exports = [module.parent.filename, module.parent.path, __filename, __dirname];',
    'load.js': 'module.exports = load;', 'bad.json': '{"k": }', 'syntax.js': 'var x = ;',
    'rejects.js': "const p = Promise.reject(new Error('late')); p.catch(() => {}); return p;",
    'self.js': "module.exports = require('./self');",
    'cycle1.js': "module.exports = require('./cycle2');", 'cycle2.js': "module.exports = require('./cycle1');",
  });
  const runs = path.join(dir, 'runs.js');
  const { results, lines } = runVusers([path.join(dir, 'resolve.js'), runs]);
  const notResolved = (n) => ({ thrown: `Error: Require function couldn't resolve path for the file [${n}] in folder: [${dir}/]` });
  assert.deepStrictEqual(Object.values(results.resolve), [
    'a', 'b.js', 'a.json', {}, [3, 4], notResolved('fs'), 'modules fs', 'local fs',
    { own: 'deep own', mid: 'mid main' }, 'top own', 'inner', 'nomain from node_modules', 'sub',
    'index.js.json', 'index.js', 'b.js', notResolved('./missing'),
  ]);
  assert.ok(lines.some((l) => /^Require - .*Require failed loading: fs - Core node modules are currently not supported$/.test(l)));
  assert.ok(lines.some((l) => /Require failed loading: \.\/missing - couldn't find the file$/.test(l)));
  const { badJson, rejects, self, cycle1, syntax, ...rest } = results.runs;
  const badArgs = { thrown: 'Error: Require::RequireFunction - Expects at least 2 arguments: 1) file name(string), 2) dir name(string)' };
  assert.deepStrictEqual(rest, {
    five: 5, once: [{ runs: 1 }, true], throw1: { thrown: 'Error: boom 1' }, throw2: { thrown: 'Error: boom 2' },
    restored: [runs, `${dir}/`], bom: [{ k: 1 }, 'bom js'],
    parent: { mid: [runs, `${dir}/`, 'mid.js', `${dir}/sub/`], leaf: ['mid.js', `${dir}/sub/`, 'leaf.js', `${dir}/sub/`] },
    load: { x: 1 }, nullLoad: badArgs, oneArg: badArgs, notRestored: ['syntax.js', `${dir}/`],
  });
  assert.match(badJson.thrown, /^SyntaxError: /);
  assert.match(rejects.thrown, /^Error: Error running required file: .*late/);
  for (const e of [self, cycle1]) assert.match(JSON.stringify(e), /Maximum call stack size exceeded/);
  // A compile error reaches the script as the plain record of the error, not as an Error.
  assert.deepStrictEqual([syntax.thrown.fileName, syntax.thrown.lineNumber, syntax.thrown.columnNumber],
    [path.join(dir, 'syntax.js'), 1, 142 + 'var x = '.length]);
  assert.match(syntax.thrown.message, /SyntaxError/);
});

test('Vusers share file texts and code, early or late; a main script goes by its base name, a module by its full path', () => {
  const dir = scriptDir({
    'main.js': "console.log('GOT ' + keshRequire('./shared', __dirname));",
    'shared.js': "global.n = (global.n || 0) + 1; module.exports = 'v1 ' + vuser_id + ' ' + global.n;",
    'named.js': `function where() { return new Error().stack.split('\\n')[1].trim(); }
      console.log('AT ' + vuser_id + ' ' + where());
      function boom() { null.x; }`,
    'user.js': "keshRequire('./named', __dirname);",
  });
  const [main, named] = [path.join(dir, 'main.js'), path.join(dir, 'named.js')];
  const { stdout, lines } = runVusers([main, main, main, named, named, path.join(dir, 'user.js')], `
    require('fs').writeFileSync(${JSON.stringify(path.join(dir, 'shared.js'))}, "module.exports = 'v2'");
    ${JSON.stringify([main, named])}.forEach((script, i) => k.createKeshThread(7 + i, script, '{}'));
    await Promise.all([k.startKeshThread(7), k.startKeshThread(8)]);
    k.runFunctionFromScript(8, 'boom', '');
    await until(() => lines.some((l) => l.includes('"fileName"')), 'the failure line');
    k.stopKeshThread(7); k.stopKeshThread(8);`);
  // The changed file is not read again: the late Vuser runs the cached text with its own state.
  const got = [...stdout.matchAll(/^GOT (.*)$/gm)].map((m) => m[1]).sort();
  assert.deepStrictEqual(got, [1, 2, 3, 7].map((id) => `v1 ${id} 1`));
  const at = Object.fromEntries([...stdout.matchAll(/^AT (\d+) at where \((.*):1:\d+\)$/gm)].map((m) => [m[1], m[2]]));
  assert.deepStrictEqual(at, { 4: 'named.js', 5: 'named.js', 6: named, 8: 'named.js' });
  const failure = lines.find((l) => l.includes('Error calling Vuser function'));
  assert.match(failure, /"fileName":"named\.js"/);
  assert.match(failure, /at boom \(named\.js:3:\d+\)/);
  // Each cache is made again once, after its first run, however many Vusers ran it at once (named.js
  // as a module is no wrapped module: nothing of it runs).
  const remade = lines.map((l) => /code cache of (.*) made again after its first run/.exec(l)?.[1]).filter(Boolean);
  assert.deepStrictEqual(remade.sort(), ['main.js', 'named.js', 'user.js', path.join(dir, 'shared.js')].sort());
});

test('modules that many Vusers load at once keep their text for the functions compiled later', () => {
  // All Vusers load the same modules at the same moment, so that some lose the race to the file
  // cache. Each module reaches V8 over the cache's text, and its function compiles only when
  // called, after the load; freed memory reads as 0xa5 bytes. A loser that gave back memory it
  // never charged stops its isolate at disposal on V8 versions that check the count.
  const names = Array.from({ length: 16 }, (_, i) => `m${i}`);
  const files = { 'main.js': `function load() {
    const mods = ${JSON.stringify(names)}.map((name) => keshRequire('./' + name, __dirname));
    keshConsole('SUM ' + mods.reduce((sum, m) => sum + m.later(1), 0), 'Info');
  }` };
  names.forEach((name, i) => { files[`${name}.js`] = `${'// padding\n'.repeat(2000)}module.exports = { later: (n) => n + ${i} };`; });
  const { lines } = runVusers(Array(20).fill(path.join(scriptDir(files), 'main.js')), `
    for (let id = 1; id <= 20; ++id) k.runFunctionFromScript(id, 'load', '');
    await until(() => lines.filter((l) => /SUM|Error calling/.test(l)).length === 20, 'every load', 30000);`,
  { level: 'info', env: { MALLOC_PERTURB_: '165' }, timeout: 60000 });
  const done = lines.filter((l) => /SUM|Error calling/.test(l));
  assert.strictEqual(done.filter((l) => / SUM 136$/.test(l)).length, 20, done.join('\n').slice(0, 2000));
});
