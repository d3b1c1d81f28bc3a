#!/usr/bin/env node
// kesh-run: runs a load (the default command), or one of the commands below on results and on
// the cluster that runs shards. Each command is a module with main(argv).
'use strict';

const commands = {
  merge: '../lib/merge',
  k8s: '../lib/k8s',
};

const [name, ...rest] = process.argv.slice(2);
if (Object.hasOwn(commands, name)) require(commands[name]).main(rest);
else require('../lib/runCommand').main(process.argv.slice(2));
