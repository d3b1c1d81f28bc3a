'use strict';
// Our declaration of V8's inspector interface against the vtables of the node running this test:
// a function in the wrong slot, or with other parameters, would crash at its first call.
const test = require('node:test');
const assert = require('node:assert');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

const { buildDir } = require('../lib/buildDir');

// Host classes whose vtables show each declared class's slots. `complete`: we derive from the
// class, so V8 may call any of its slots on our object, and we must declare all of them.
const hostClasses = {
  V8InspectorClient: { host: 'node::inspector::NodeInspectorClient', complete: true },
  V8Inspector: { host: 'v8_inspector::V8InspectorImpl' },
  'V8Inspector::Channel': { host: 'node::inspector::{anon}::ChannelImpl' },
  V8InspectorSession: { host: 'v8_inspector::V8InspectorSessionImpl' },
  StringBuffer: { host: 'v8_inspector::{anon}::StringBuffer16' },
  V8StackTrace: { host: 'v8_inspector::V8StackTraceImpl' },
};

// One spelling for the compiler's and the demangler's ways of writing a type.
function normalType(text) {
  let t = text.trim().replace(/, ?std::default_delete<(?:[^<>]|<[^<>]*>)*> ?>/g, '>');
  const leadingConst = /^const (.*?)\s*([&*])$/.exec(t);
  if (leadingConst) t = `${leadingConst[1]} const${leadingConst[2]}`;
  return t.replace(/\s+/g, '');
}

// "<qualified name>(<params>)[ const]" into the method's name, its parameters and constness.
function parseSignature(text) {
  const open = text.indexOf('(');
  const params = [''];
  let close = open + 1;
  for (let depth = 1; close < text.length; close++) {
    const c = text[close];
    if ('<('.includes(c)) depth++;
    if ('>)'.includes(c) && --depth === 0) break;
    if (c === ',' && depth === 1) params.push('');
    else params[params.length - 1] += c;
  }
  return { name: text.slice(0, open).split('::').pop(), isConst: /\)\s*const\s*$/.test(text.slice(close)),
    params: params.filter((piece) => piece.trim() !== '').map(normalType) };
}

function declaredSlots() {
  const classes = {};
  for (const line of execFileSync(path.join(buildDir(), 'kesh-inspector-slots'), { encoding: 'utf8' }).trim().split('\n')) {
    const [owner, slot, name, type] = line.split('\t'); // type: "R (Class::*)(params)[ const]"
    (classes[owner] ??= []).push({ slot: Number(slot), ...parseSignature(name + type.slice(type.indexOf('::*)') + 4)) });
  }
  return classes;
}

function hostVtables() {
  const exe = process.execPath;
  const namesAt = new Map();
  const vtables = new Map();
  for (const line of execFileSync('nm', ['-C', '-S', exe], { encoding: 'utf8', maxBuffer: 1 << 28 }).split('\n')) {
    const m = /^([0-9a-f]+) (?:([0-9a-f]+) )?\w (.*)$/.exec(line);
    if (!m) continue;
    const address = BigInt(`0x${m[1]}`);
    const name = m[3].replaceAll('(anonymous namespace)', '{anon}');
    if (name.startsWith('vtable for ')) vtables.set(name.slice(11), { address, size: m[2] ? Number(`0x${m[2]}`) : 0 });
    else if (!name.includes('[clone')) namesAt.set(address, [...(namesAt.get(address) ?? []), name]);
  }
  // The vtables are raw addresses in the file's read-only data: find their bytes through the
  // ELF section headers.
  const image = fs.readFileSync(exe);
  const sections = Array.from({ length: image.readUInt16LE(0x3c) }, (_, i) => {
    const at = Number(image.readBigUInt64LE(0x28)) + i * image.readUInt16LE(0x3a);
    return { address: image.readBigUInt64LE(at + 16), offset: image.readBigUInt64LE(at + 24),
      size: image.readBigUInt64LE(at + 32), type: image.readUInt32LE(at + 4) };
  });
  const word = (address) => {
    const s = sections.find((x) => x.type === 1 && x.address !== 0n && address >= x.address && address < x.address + x.size);
    assert.ok(s, `address 0x${address.toString(16)} is in no section of ${exe}`);
    return image.readBigUInt64LE(Number(address - s.address + s.offset));
  };
  return (className, slot) => {
    const vtable = vtables.get(className);
    assert.ok(vtable, `${exe} has no vtable for ${className}`);
    // Word 0 is the offset to the top, word 1 the type information, then the slots.
    return { names: namesAt.get(word(vtable.address + 16n + 8n * BigInt(slot))) ?? [], slots: vtable.size / 8 - 2 };
  };
}

test('declared inspector slots match the vtables of this node', () => {
  const declared = declaredSlots();
  const hostSlot = hostVtables();
  assert.deepStrictEqual(Object.keys(declared).sort(), Object.keys(hostClasses).sort());
  for (const [owner, members] of Object.entries(declared)) {
    const { host, complete } = hostClasses[owner];
    for (const member of members) {
      assert.ok(member.slot >= 0, `${owner}::${member.name} is not virtual`);
      const names = hostSlot(host, member.slot).names;
      const match = names.map(parseSignature).find((f) => f.name === member.name);
      assert.ok(match, `${owner}::${member.name} is declared in slot ${member.slot}, where ${host} has ${JSON.stringify(names)}`);
      assert.deepStrictEqual([match.params, match.isConst], [member.params, member.isConst],
        `${owner}::${member.name}: parameters differ from the host's`);
    }
    // The slots no declared function takes are the two destructors: where the host has its own.
    const taken = new Set(members.map((m) => m.slot));
    const last = Math.max(...taken);
    let destructors = Array.from({ length: last + 1 }, (_, s) => s).filter((s) => !taken.has(s));
    if (destructors.length === 0) destructors = [last + 1, last + 2];
    assert.strictEqual(destructors.length, 2, `${owner}: slots ${destructors} are declared by none`);
    for (const s of destructors) {
      assert.ok(hostSlot(host, s).names.some((n) => n.includes('::~')), `${owner}: slot ${s} of ${host} is no destructor`);
    }
    if (complete) assert.strictEqual(hostSlot(host, 0).slots, members.length + 2, `${owner} must declare every slot of ${host}`);
  }
});
