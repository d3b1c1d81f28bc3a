// An example Vuser script: it reports who it is through both of its output channels.
console.log(`Vuser ${vuser_id} says hello from ${__filename}`);
keshConsole(`Vuser ${vuser_id} started with args ${JSON.stringify(args)}`, 'Info');
