// The type gallery by dbus-next. What is tried is in ../gallery.py, which also tells it as JSON: 64-bit integers as text,
// dictionaries as lists of pairs, variants as {signature, value}.
'use strict';

const { execFileSync } = require('child_process');
const path = require('path');
const { Message, MessageType, Variant, setBigIntCompat, systemBus } = require('dbus-next');

setBigIntCompat(false); // JavaScript's own big integers

const NAME = 'com.example.TypeGallery';
const PATH = '/com/example/TypeGallery';
const INTERFACE = 'com.example.TypeGallery1';
const PROPERTIES = 'org.freedesktop.DBus.Properties';

/** dbus-next cannot express it. */
class CannotSay extends Error {}

function endOfType(signature, at) {
  if (signature[at] === 'a') return endOfType(signature, at + 1);
  if (signature[at] === '(' || signature[at] === '{') {
    at += 1;
    while (signature[at] !== ')' && signature[at] !== '}') at = endOfType(signature, at);
  }
  return at + 1;
}

function typesOf(signature) {
  const types = [];
  for (let at = 0; at < signature.length;) {
    const end = endOfType(signature, at);
    types.push(signature.slice(at, end));
    at = end;
  }
  return types;
}

/** A value of the plan as dbus-next takes it. */
function toPeer(signature, value) {
  if (signature === 'x' && value === '-9223372036854775808') throw new CannotSay(); // out of range to it
  if (signature === 'x' || signature === 't') return BigInt(value);
  if (signature === 'v') return new Variant(value.signature, toPeer(value.signature, value.value));
  if (signature[0] === '(') return typesOf(signature.slice(1, -1)).map((type, i) => toPeer(type, value[i]));
  if (signature.startsWith('a{')) {
    const [key, content] = typesOf(signature.slice(2, -1));
    // Its dictionaries are objects, whose keys are text.
    if (!'sog'.includes(key)) throw new CannotSay();
    return Object.fromEntries(value.map(([k, v]) => [k, toPeer(content, v)]));
  }
  if (signature === 'ay') return Buffer.from(value);
  if (signature[0] === 'a') return value.map((v) => toPeer(signature.slice(1), v));
  return value;
}

/** What dbus-next gives as a text that is equal for equal values only. */
function fromPeer(signature, value) {
  if (signature === 'd') return Object.is(value, -0) ? '-0' : String(value);
  if (signature === 'x' || signature === 't') return value.toString();
  if (signature === 'v') return `<${value.signature} ${fromPeer(value.signature, value.value)}>`;
  if (signature[0] === '(') {
    return `(${typesOf(signature.slice(1, -1)).map((type, i) => fromPeer(type, value[i])).join(', ')})`;
  }
  if (signature.startsWith('a{')) {
    const [, content] = typesOf(signature.slice(2, -1));
    const entries = Object.entries(value).map(([k, v]) => `${JSON.stringify(k)}: ${fromPeer(content, v)}`);
    return `{${entries.sort().join(', ')}}`;
  }
  if (signature[0] === 'a') return `[${Array.from(value).map((v) => fromPeer(signature.slice(1), v)).join(', ')}]`;
  return JSON.stringify(value);
}

const done = {};
let failures = 0;

function check(kind, isGood, what) {
  done[kind] = (done[kind] || 0) + 1;
  if (!isGood) {
    failures += 1;
    if (failures <= 30) console.log(`FAILED dbus-next: ${what.slice(0, 600)}`);
  }
}

async function main() {
  const seed = process.env.INTEROP_SEED || String(Date.now() % 2 ** 31);
  console.log(`seed ${seed} (INTEROP_SEED=${seed} repeats it)`);
  const script = path.join(__dirname, '..', 'gallery.py');
  const plan = JSON.parse(execFileSync('python3', [script, seed], { maxBuffer: 64 * 1024 * 1024 }));

  const bus = systemBus();
  const ask = async (name, objectPath, interfaceName, member, signature, body) => {
    const reply = await bus.call(new Message({
      destination: name, path: objectPath, interface: interfaceName, member, signature, body
    }));
    return reply;
  };
  const call = (member, signature, values) =>
    ask(NAME, PATH, INTERFACE, member, signature, typesOf(signature).map((type, i) => toPeer(type, values[i])));
  const get = async (name) => (await ask(NAME, PATH, PROPERTIES, 'Get', 'ss', [INTERFACE, name])).body[0];
  const set = (name, signature, value) => ask(NAME, PATH, PROPERTIES, 'Set', 'ssv',
    [INTERFACE, name, new Variant(signature, toPeer(signature, value))]);

  const heard = [];
  bus.on('message', (message) => {
    if (message.type !== MessageType.SIGNAL || message.path !== PATH) return;
    if (message.interface === INTERFACE) {
      heard.push(`${message.member} ${fromPeer(message.signature, message.body[0])}`);
    } else if (message.member === 'PropertiesChanged') {
      for (const [name, variant] of Object.entries(message.body[1])) {
        heard.push(`${name} ${fromPeer(variant.signature, variant.value)}`);
      }
    }
  });
  for (const name of [INTERFACE, PROPERTIES]) {
    const rule = `type='signal',sender='${NAME}',interface='${name}'`;
    await ask('org.freedesktop.DBus', '/', 'org.freedesktop.DBus', 'AddMatch', 's', [rule]);
  }

  const expected = [];
  const said = { method: new Set(), property: new Set() };
  for (const row of plan.rows) {
    for (const [sent, back] of row.values) {
      try {
        const wanted = fromPeer(row.signature, toPeer(row.signature, back));
        const reply = await call(`Echo${row.name}`, row.signature, [sent]);
        const found = fromPeer(reply.signature, reply.body[0]);
        check('echoes', reply.signature === row.signature && found === wanted, `Echo${row.name}: ${wanted} came back as ${found}`);
        expected.push(`Got${row.name} ${wanted}`);
        said.method.add(row.name);
        if (!row.hasProperty) continue;
        await set(row.name, row.signature, sent);
        expected.push(`${row.name} ${wanted}`);
        const variant = await get(row.name);
        const held = fromPeer(variant.signature, variant.value);
        check('properties', variant.signature === row.signature && held === wanted, `${row.name}: ${wanted} became ${held}`);
        said.property.add(row.name);
      } catch (error) {
        if (!(error instanceof CannotSay)) check('echoes', false, `${row.name}: ${JSON.stringify(sent)}: ${error.stack}`);
      }
    }
  }

  const deadline = Date.now() + 20000;
  while (heard.length < expected.length && Date.now() < deadline) await new Promise((resolve) => setTimeout(resolve, 20));
  check('signals', heard.length === expected.length, `${heard.length} signals instead of ${expected.length}`);
  expected.forEach((wanted, i) => check('signals', heard[i] === wanted, `${wanted} was heard as ${heard[i]}`));

  const refuses = async (what, action, name, text) => {
    try {
      await action();
      check('refusals', false, `${what} was not refused`);
    } catch (error) {
      if (error instanceof CannotSay) return;
      check('refusals', error.type === name && error.text === text,
        `${what} was refused by ${error.type}: ${error.text} (${error}) instead of ${name}: ${text}`);
    }
  };
  for (const { member, signature, values, name, text } of plan.wrongCalls) {
    await refuses(`${member}(${JSON.stringify(values)})`, () => call(member, signature, values), name, text);
  }
  for (const { row, signature, value, name, text } of plan.wrongProperties) {
    await refuses(`${row} = ${JSON.stringify(value)}`, () => set(row, signature, value), name, text);
  }
  check('calls', (await call('Later', 'us', [50, 'later'])).body[0] === 'later', 'Later answers otherwise');
  check('calls', (await call('Closed', '', [])).body.length === 0, 'Closed answers otherwise');
  check('signals', heard.length === expected.length, `signals of refused calls: ${heard.slice(expected.length)}`);

  const cannot = { method: ['Descriptor', 'Numbers'], property: ['Numbers'] };
  for (const how of ['method', 'property']) {
    const leftOut = plan.rows.map((row) => row.name).filter((name) => !said[how].has(name))
      .filter((name) => how === 'method' || name !== 'Descriptor');
    console.log(`dbus-next: ${how} of ${said[how].size} rows, not ${leftOut.join(', ')}`);
    check('rows', leftOut.join() === cannot[how].join(), `rows without a ${how}: ${leftOut}`);
  }
  for (const [kind, count] of Object.entries(done)) console.log(`dbus-next: ${kind}: ${count}`);
  console.log(`${failures} failures`);
  bus.disconnect();
  process.exit(failures === 0 ? 0 : 1);
}

main().catch((error) => {
  console.log(`FAILED dbus-next: ${error.stack}`);
  process.exit(1);
});
