'use strict';
// The declarations against the module: node/index.d.ts (and node/browser.d.ts when present) is
// read with the TypeScript compiler's parser and compared with what the package exports, with
// how each native treats its arguments (how many it needs, which may be left out, what it answers
// then, which callbacks it calls) and with the keys of the objects the module hands back: the
// response object, an inspect reply and, through open() in a process of its own, the answers,
// status and events of a cache.
const test = require('node:test');
const assert = require('node:assert/strict');
const { spawn } = require('child_process');
const fs = require('fs');
const path = require('path');

const { ferrit, tempRoot } = require('./helpers');

const nodeDir = path.join(__dirname, '..');
const typescriptDir = path.join(nodeDir, 'typecheck', 'node_modules', 'typescript');
// A failure guard only: callbacks and the child process finish long before it.
const kDeadlineMs = 8000;

function loadTypescript() {
  try {
    return require(typescriptDir);
  } catch {
    assert.fail(`the TypeScript compiler is missing at ${typescriptDir}: run scripts/setup.sh, ` +
      'which installs it from node/typecheck/package-lock.json');
  }
}

// ---- What a declaration file says, as plain data.

// The kinds of value a type admits: 'undefined', 'boolean', 'string', 'number', 'bigint',
// 'object', 'function', 'promise', or 'any' for unknown and the like.
function kindsOf(ts, node, aliases) {
  const kinds = new Set();
  const visit = (type) => {
    if (!type) return kinds.add('any');
    switch (type.kind) {
      case ts.SyntaxKind.UndefinedKeyword:
      case ts.SyntaxKind.VoidKeyword: return kinds.add('undefined');
      case ts.SyntaxKind.BooleanKeyword: return kinds.add('boolean');
      case ts.SyntaxKind.StringKeyword: return kinds.add('string');
      case ts.SyntaxKind.NumberKeyword: return kinds.add('number');
      case ts.SyntaxKind.BigIntKeyword: return kinds.add('bigint');
      case ts.SyntaxKind.UnknownKeyword:
      case ts.SyntaxKind.AnyKeyword: return kinds.add('any');
      case ts.SyntaxKind.LiteralType:
        if (type.literal.kind === ts.SyntaxKind.NullKeyword) return kinds.add('null');
        if (ts.isStringLiteral(type.literal)) return kinds.add('string');
        if (ts.isNumericLiteral(type.literal)) return kinds.add('number');
        return kinds.add('boolean');
      case ts.SyntaxKind.FunctionType: return kinds.add('function');
      case ts.SyntaxKind.UnionType: return type.types.forEach(visit);
      case ts.SyntaxKind.ParenthesizedType: return visit(type.type);
      case ts.SyntaxKind.TypeReference: {
        const name = type.typeName.getText();
        if (name === 'Promise') return kinds.add('promise');
        if (aliases.has(name)) return visit(aliases.get(name));
        return kinds.add(name.length === 1 ? 'any' : 'object');  // a type parameter, or an interface
      }
      default: return kinds.add('object');
    }
  };
  visit(node);
  return kinds;
}

// {values: Map name -> 'function' | 'class' | 'const', functions: Map name -> [signature],
//  interfaces: Map name -> {members: Map name -> {optional, type}, index, extends}, docs}
function readDeclarations(ts, files) {
  const values = new Map();
  const functions = new Map();
  const interfaces = new Map();
  const aliases = new Map();
  const docs = new Map();
  const classes = new Map();
  const sources = files.map((file) =>
    ts.createSourceFile(file, fs.readFileSync(file, 'utf8'), ts.ScriptTarget.ES2022, true));
  const exported = (node) => (ts.getModifiers?.(node) ?? node.modifiers ?? [])
    .some((m) => m.kind === ts.SyntaxKind.ExportKeyword);
  for (const source of sources) {
    for (const statement of source.statements) {
      if (ts.isTypeAliasDeclaration(statement)) aliases.set(statement.name.text, statement.type);
    }
  }
  const membersOf = (elements) => {
    const members = new Map();
    let index = false;
    for (const member of elements) {
      if (ts.isIndexSignatureDeclaration(member)) {
        index = true;
        continue;
      }
      if (!member.name || !(ts.isIdentifier(member.name) || ts.isStringLiteral(member.name))) continue;
      if (ts.isConstructorDeclaration?.(member)) continue;
      const isStatic = (ts.getModifiers?.(member) ?? []).some((m) => m.kind === ts.SyntaxKind.StaticKeyword);
      if (isStatic) continue;
      members.set(member.name.text, { optional: Boolean(member.questionToken), type: member.type, node: member });
    }
    return { members, index };
  };
  for (const source of sources) {
    for (const statement of source.statements) {
      if (ts.isFunctionDeclaration(statement) && statement.name && exported(statement)) {
        const name = statement.name.text;
        values.set(name, 'function');
        const doc = ts.getJSDocCommentsAndTags(statement).map((d) => d.getText()).join('\n');
        if (doc) docs.set(name, `${docs.get(name) ?? ''}${doc}\n`);
        const params = statement.parameters.map((p) => ({
          name: p.name.getText(),
          optional: Boolean(p.questionToken || p.initializer),
          rest: Boolean(p.dotDotDotToken),
          kinds: kindsOf(ts, p.type, aliases),
          type: p.type,
        }));
        if (!functions.has(name)) functions.set(name, []);
        functions.get(name).push({
          params,
          required: params.filter((p) => !p.optional && !p.rest).length,
          returns: kindsOf(ts, statement.type, aliases),
        });
      } else if (ts.isClassDeclaration(statement) && statement.name && exported(statement)) {
        values.set(statement.name.text, 'class');
        const bases = (statement.heritageClauses ?? []).flatMap((h) => h.types.map((t) => t.expression.getText()));
        classes.set(statement.name.text, { ...membersOf(statement.members), extends: bases });
      } else if (ts.isVariableStatement(statement) && exported(statement)) {
        for (const declaration of statement.declarationList.declarations) values.set(declaration.name.getText(), 'const');
      } else if (ts.isInterfaceDeclaration(statement)) {
        const { members, index } = membersOf(statement.members);
        const bases = (statement.heritageClauses ?? []).flatMap((h) => h.types.map((t) => t.expression.getText()));
        const previous = interfaces.get(statement.name.text);
        if (previous) {
          for (const [k, v] of members) previous.members.set(k, v);
          previous.index ||= index;
          previous.extends.push(...bases);
        } else {
          interfaces.set(statement.name.text, { members, index, extends: bases });
        }
      }
    }
  }
  // Interfaces take the members of the interfaces and classes they extend within these files, and
  // of the language's Error (as its ES2022 declarations have it).
  const resolved = new Map([['Error', {
    members: new Map([['name', { optional: false }], ['message', { optional: false }],
      ['stack', { optional: true }], ['cause', { optional: true }]]),
    index: false,
  }]]);
  const resolve = (name) => {
    if (resolved.has(name)) return resolved.get(name);
    const own = interfaces.get(name) ?? classes.get(name);
    if (!own) return undefined;
    const all = { members: new Map(), index: own.index };
    for (const base of own.extends ?? []) {
      const inherited = resolve(base);
      if (inherited) {
        for (const [k, v] of inherited.members) all.members.set(k, v);
        all.index ||= inherited.index;
      }
    }
    for (const [k, v] of own.members) all.members.set(k, v);
    resolved.set(name, all);
    return all;
  };
  for (const name of [...interfaces.keys(), ...classes.keys()]) resolve(name);
  return { values, functions, interfaces: resolved, aliases, docs, sources };
}

function kindOfValue(value) {
  if (value === null) return 'null';
  if (value instanceof Promise) return 'promise';
  return typeof value;
}

function admits(kinds, value) {
  return kinds.has('any') || kinds.has(kindOfValue(value));
}

// The keys of `object` against the members of the interface `name`: every required member is
// there, and nothing is there that the interface does not declare (unless it has an index
// signature).
function assertShape(declarations, name, object, what) {
  const declared = declarations.interfaces.get(name);
  assert.ok(declared, `${what}: the declarations have no interface ${name}`);
  assert.equal(typeof object, 'object', `${what} is no object`);
  const keys = Object.keys(object);
  const required = [...declared.members].filter(([, m]) => !m.optional).map(([k]) => k);
  const missing = required.filter((k) => !keys.includes(k));
  assert.deepEqual(missing, [], `${what} lacks the required members of ${name}: ${missing.join(', ')}`);
  if (!declared.index) {
    const extra = keys.filter((k) => !declared.members.has(k));
    assert.deepEqual(extra, [], `${what} has members that ${name} does not declare: ${extra.join(', ')}`);
  }
}

const ts = loadTypescript();
const declarationFiles = ['index.d.ts', 'browser.d.ts']
  .map((file) => path.join(nodeDir, file))
  .filter((file) => fs.existsSync(file));
const declarations = readDeclarations(ts, declarationFiles);
const indexDeclarations = readDeclarations(ts, [path.join(nodeDir, 'index.d.ts')]);

// ---- The exported names.

function exportedKind(value) {
  if (typeof value !== 'function') return 'const';
  return /^class\b/.test(Function.prototype.toString.call(value)) ? 'class' : 'function';
}

// Says in words where the declared names and kinds differ from the exported ones.
function compareExports(declaredMap, module, what) {
  const problems = [];
  for (const name of Object.keys(module)) {
    const kind = exportedKind(module[name]);
    if (!declaredMap.has(name)) problems.push(`${what} exports the ${kind} ${name}, which is not declared`);
    else if (declaredMap.get(name) !== kind) problems.push(`${name} is declared a ${declaredMap.get(name)} but is a ${kind}`);
  }
  for (const name of declaredMap.keys()) {
    if (!(name in module)) problems.push(`${name} is declared but ${what} does not export it`);
  }
  assert.deepEqual(problems, []);
}

test('DeclarationsTest.ExportedNamesAreTheModulesExports', () => {
  compareExports(indexDeclarations.values, ferrit, 'the module');
});

test('DeclarationsTest.BrowserDeclarationsAreItsExports', (t) => {
  const file = path.join(nodeDir, 'browser.d.ts');
  if (!fs.existsSync(path.join(nodeDir, 'browser.js'))) {
    assert.equal(fs.existsSync(file), false, 'browser.d.ts declares a module that does not exist');
    t.skip('node/browser.js is not in this tree');
    return;
  }
  assert.ok(fs.existsSync(file), 'node/browser.js has no browser.d.ts');
  compareExports(readDeclarations(ts, [file]).values, require(path.join(nodeDir, 'browser.js')), 'ferritcore/browser');
});

// ---- The natives' arguments.

const NATIVES = Object.getOwnPropertyNames(require(process.env.FERRITCORE_ADDON ||
  path.join(nodeDir, '..', 'build', 'node', 'ferritcore.node')));

// Callbacks that remember how they were called.
function recordingCallback() {
  const calls = [];
  let wake = () => {};
  const callback = (...args) => {
    calls.push(args);
    wake();
  };
  callback.calls = calls;
  callback.called = () => new Promise((resolve, reject) => {
    if (calls.length > 0) {
      resolve(calls[0]);
      return;
    }
    const timer = setTimeout(() => reject(new Error(`no callback within ${kDeadlineMs} ms`)), kDeadlineMs);
    wake = () => {
      clearTimeout(timer);
      resolve(calls[0]);
    };
  });
  return callback;
}

// Arguments a host gives each native and inspect: one value per declared parameter, in order,
// callbacks made fresh for each call. The root is this test's own.
function sampleArguments(root) {
  const host = {
    insecureNoSignatureCheck: true,
    sendRequest(request, id) {
      setImmediate(() => ferrit.onSendRequestFinishedNative(id, undefined, { code: 1, message: 'offline' }));
    },
    createError(code, message) {
      return { code, message };
    },
  };
  return {
    setProxyNative: () => [host, root, null],
    onSendRequestFinishedNative: () => ['999999', { statusCode: 200 }, { code: 0, message: '' }],
    setEnvNative: () => [2],
    setLocaleNative: () => ['en-US'],
    setDefaultConfigNative: () => [{ configUpdateInterval: 300000 }],
    setNetworkStatusNative: () => [0],
    registerAcceptNative: () => ['image', 'png,webp', 'image/webp'],
    setupNative: () => ['declarations', '1.0', 1],
    startUpdateNative: () => [],
    clientActivedNative: () => [],
    clientDeactivedNative: () => [],
    installPreloadNative: () => ['none'],
    getAccessAPINative: () => [],
    prefetchNative: () => [['https://declarations.example.com/a.js']],
    updatePackNative: () => [{ name: 'none' }, recordingCallback()],
    getResourceSyncNative: () => [{ url: 'https://declarations.example.com/a.js' }],
    getResourceNative: () => [{ url: 'https://declarations.example.com/a.js' }, recordingCallback()],
    getACacheRootPathNative: () => ['none', 'index.html'],
    inspect: () => ['FerritDev.info', {}],
  };
}

// For natives whose answer is always undefined, what tells from outside whether a call did
// something: the inspector answers only once setup has run, and the inspect channel runs behind
// the lifecycle natives queued before it.
const OBSERVERS = {
  setupNative: () => ferrit.inspect('FerritDev.info').then(() => 'set up', (error) => `not set up (${error.code})`),
};

// What a native answers when it does nothing: undefined, or false for one that answers a boolean.
function nothingFor(signatures) {
  return signatures.some((s) => s.returns.has('boolean')) ? false : undefined;
}

test('DeclarationsTest.NativesTakeTheDeclaredArguments', async (t) => {
  const root = tempRoot(t);
  const samples = sampleArguments(root);
  // The proxy goes first, as in a host: the calls after it act on an opened cache.
  const order = ['setProxyNative', ...NATIVES.filter((n) => n !== 'setProxyNative'), 'inspect'];
  for (const name of order) {
    const signatures = declarations.functions.get(name);
    assert.ok(signatures, `${name} is not declared`);
    assert.ok(samples[name], `the test has no sample arguments for ${name}`);
    const full = samples[name]();
    const longest = Math.max(...signatures.map((s) => s.params.length));
    assert.equal(full.length, longest, `${name}: the test's sample arguments are not the declared ones`);
    const fewest = Math.min(...signatures.map((s) => s.required));
    const observe = OBSERVERS[name];
    const before = observe ? await observe() : undefined;
    // One argument fewer than any declaration needs: the native does nothing, and says so.
    if (fewest > 0) {
      const answer = ferrit[name](...samples[name]().slice(0, fewest - 1));
      if (name === 'inspect') {
        await assert.rejects(answer, `${name} without its command`);
      } else {
        assert.equal(answer, nothingFor(signatures), `${name} with ${fewest - 1} argument(s)`);
      }
      if (observe) assert.equal(await observe(), before, `${name} with ${fewest - 1} argument(s) did something`);
    }
    // Every declaration, with its required arguments and with all of them: the answer is of the
    // declared kind, and a declared callback is called.
    for (const signature of signatures) {
      for (const count of new Set([signature.required, signature.params.length])) {
        const args = samples[name]().slice(0, count);
        const answer = ferrit[name](...args);
        assert.ok(admits(signature.returns, answer),
          `${name} with ${count} argument(s) answered ${kindOfValue(answer)}, declared ` +
          `${[...signature.returns].join(' | ')}`);
        if (observe && count === signature.required) {
          assert.notEqual(await observe(), before, `${name} with its ${count} required argument(s) did nothing`);
        }
        if (answer instanceof Promise) {
          const value = await answer;
          assert.equal(typeof value, 'object', `${name} resolves with no object`);
        }
        for (const [i, param] of signature.params.slice(0, count).entries()) {
          if (!param.kinds.has('function')) continue;
          const callArgs = await args[i].called();
          const declaredArgs = param.type.parameters.length;
          assert.equal(callArgs.length, declaredArgs, `${name}'s ${param.name} was called with ` +
            `${callArgs.length} argument(s), declared ${declaredArgs}`);
          param.type.parameters.forEach((p, j) => {
            const kinds = kindsOf(ts, p.type, declarations.aliases);
            assert.ok(admits(kinds, callArgs[j]), `${name}'s ${param.name} got ${kindOfValue(callArgs[j])} ` +
              `as ${p.name.getText()}, declared ${[...kinds].join(' | ')}`);
          });
        }
      }
    }
  }
});

test('DeclarationsTest.CallbacksAnsweredForWrongRequestsAreDocumented', async () => {
  // Every native whose callback follows its request still answers when the request is no object;
  // its declaration must say so rather than promise that nothing happens.
  let checked = 0;
  for (const [name, signatures] of declarations.functions) {
    if (!NATIVES.includes(name)) continue;
    const signature = signatures[signatures.length - 1];
    if (signature.params.length !== 2 || !signature.params[1].kinds.has('function')) continue;
    const callback = recordingCallback();
    ferrit[name](1, callback);
    await callback.called();
    const doc = declarations.docs.get(name) ?? '';
    assert.match(doc.replace(/\s*\*\s*/g, ' '), /is not an object.*still answers/,
      `${name} answers its callback for a request that is no object; its declaration does not say so`);
    checked += 1;
  }
  assert.equal(checked, 2, 'getResourceNative and updatePackNative');
});

test('DeclarationsTest.InspectInfoHasTheDeclaredMembers', async () => {
  ferrit.setupNative('declarations', '1.0', 1);
  assertShape(declarations, 'InspectInfo', await ferrit.inspect('FerritDev.info'), 'the info report');
});

// ---- The shapes of what the natives answer.

test('DeclarationsTest.ResponsesHaveTheDeclaredMembers', async () => {
  const sync = ferrit.getResourceSyncNative({ url: 'https://declarations.example.com/b.js' });
  assertShape(declarations, 'ResourceResponseObject', sync, 'a getResourceSyncNative answer');
  const later = await new Promise((resolve) => ferrit.getResourceNative({ url: '' }, resolve));
  assertShape(declarations, 'ResourceResponseObject', later, 'a getResourceNative answer');
  // The error value of the library's own making, before or without a host's createError.
  assertShape(declarations, 'NativeErrorObject', { ...sync.error }, 'a response\'s error');
});

// ---- The shapes of what open() answers and tells, from a process of its own (one native module
// per process, and this one already set its proxy).

// The child: publishes a one-page pack, serves it on loopback, opens a cache on it, updates,
// asks for a hit and a miss and the status, keeps the first event of each kind that an install
// brings, and prints the keys of each as JSON.
const kOpenChild = String.raw`
const fs = require('fs');
const path = require('path');
const ferrit = require(process.argv[1]);
const { APP, PREFIX, publish, serveTree, publisherPublic, nextEvent } = require(process.argv[2]);
(async () => {
  const dir = process.argv[3];
  const server = await serveTree(publish(dir, { 'index.html': '<p>declared</p>\n' }));
  const cache = await ferrit.open({
    root: path.join(dir, 'root'), ...APP, publicKey: fs.readFileSync(publisherPublic),
    server: server.base, autoUpdate: false, logLevel: 3,
  });
  const events = {};
  // startUpdate() below changes the state at least once ("updating").
  const waits = ['record', 'log', 'state', 'packUpdated', 'queueFinished'].map((event) => {
    const next = nextEvent(cache, event);
    return next.then((value) => { events[event] = value; });
  });
  cache.startUpdate();
  const update = await cache.update();
  const updateOne = await cache.update('site');
  const hit = await cache.get(PREFIX + 'index.html');
  const miss = await cache.get('https://elsewhere.example.com/none.js');
  const status = await cache.status();
  await Promise.all(waits);
  await cache.close();
  await server.stop();
  const plain = (value) => JSON.parse(JSON.stringify(value, (k, v) => (v instanceof Error ? { ...v } : v)));
  const keysOf = (value) => (value && typeof value === 'object' ? Object.keys(value) : value);
  process.stdout.write(JSON.stringify({
    hit: keysOf(hit), miss: keysOf(miss), status: keysOf(status), update: keysOf(update),
    updatePack: keysOf(update.packs[0]), updateOne: keysOf(updateOne),
    missError: miss.error instanceof ferrit.FerritError ? Object.keys(miss.error) : null,
    events: Object.fromEntries(Object.entries(events).map(([k, v]) => [k, keysOf(v)])),
    hitBody: Buffer.isBuffer(hit.body),
  }));
})().catch((error) => {
  console.error(error && error.stack || error);
  process.exit(1);
});
`;

function runOpenChild(dir) {
  return new Promise((resolve, reject) => {
    const child = spawn(process.execPath, ['-e', kOpenChild, nodeDir, path.join(__dirname, 'openTree.js'), dir],
      { stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    child.stdout.on('data', (chunk) => { out += chunk; });
    child.stderr.on('data', (chunk) => { err += chunk; });
    const guard = setTimeout(() => child.kill('SIGKILL'), 2 * kDeadlineMs);
    child.on('close', (code) => {
      clearTimeout(guard);
      if (code === 0) resolve(JSON.parse(out));
      else reject(new Error(`the open() child exited ${code}:\n${err.split('\n').slice(-30).join('\n')}`));
    });
  });
}

// Members of the interface or class `owner` that are methods, by name, with every overload.
function methodsOf(owner) {
  const methods = new Map();
  for (const source of declarations.sources) {
    ts.forEachChild(source, function visit(node) {
      if ((ts.isInterfaceDeclaration(node) || ts.isClassDeclaration(node)) && node.name?.text === owner) {
        for (const member of node.members) {
          if (!(ts.isMethodSignature(member) || ts.isMethodDeclaration(member)) || !member.name) continue;
          const name = member.name.getText();
          if (!methods.has(name)) methods.set(name, []);
          methods.get(name).push(member);
        }
      }
    });
  }
  return methods;
}

// The name of the interface a type node stands for: Promise<X> and X | undefined give X.
function interfaceName(type) {
  if (!type) return undefined;
  if (ts.isTypeReferenceNode(type)) {
    const name = type.typeName.getText();
    if ((name === 'Promise' || name === 'Array') && type.typeArguments?.length === 1) return interfaceName(type.typeArguments[0]);
    return name;
  }
  if (ts.isArrayTypeNode(type)) return interfaceName(type.elementType);
  if (ts.isUnionTypeNode(type)) {
    const names = type.types.map(interfaceName).filter((n) => n && declarations.interfaces.has(n));
    return names.length === 1 ? names[0] : undefined;
  }
  if (ts.isParenthesizedTypeNode(type)) return interfaceName(type.type);
  return undefined;
}

// Compares the keys the child saw with an interface, or with the members of an inline type.
function assertKeys(name, keys, what) {
  assert.ok(Array.isArray(keys), `${what}: no object (${JSON.stringify(keys)})`);
  const object = Object.fromEntries(keys.map((k) => [k, true]));
  assertShape(declarations, name, object, what);
}

test('DeclarationsTest.OpenAnswersAndEventsHaveTheDeclaredMembers', async (t) => {
  if (typeof ferrit.open !== 'function') {
    t.skip('the module has no open()');
    return;
  }
  const seen = await runOpenChild(tempRoot(t));
  assertKeys('Hit', seen.hit, 'a hit of get()');
  assertKeys('Miss', seen.miss, 'a miss of get()');
  assertKeys('Status', seen.status, 'status()');
  assert.ok(seen.missError, 'a miss carries no FerritError');
  assert.ok(seen.hitBody, 'a hit\'s body is no Buffer');
  assertKeys('FerritError', ['message', ...seen.missError], 'a miss\'s FerritError');

  // The cache's own declarations name what update() resolves with and what each event carries.
  const cacheMethods = methodsOf('FerritCache');
  assert.ok(cacheMethods.size > 0, 'the declarations have no FerritCache');
  const updates = cacheMethods.get('update') ?? [];
  const whole = updates.find((m) => m.parameters.length === 0 || m.parameters[0].questionToken);
  const one = updates.find((m) => m.parameters.length === 1 && !m.parameters[0].questionToken);
  assert.ok(whole && one, 'FerritCache declares no update() and update(name)');
  const wholeName = interfaceName(whole.type);
  assertKeys(wholeName, seen.update, 'what update() resolves with');
  const packsMember = declarations.interfaces.get(wholeName).members.get('packs');
  assertKeys(interfaceName(packsMember.type), seen.updatePack, 'a pack of update()');
  assertKeys(interfaceName(one.type), seen.updateOne, 'what update(name) resolves with');

  // What each event carries: the first element of its entry in the event map that on() takes.
  const eventMap = declarations.interfaces.get('FerritCacheEvents');
  assert.ok(eventMap, 'the declarations have no FerritCacheEvents, the events of FerritCache.on()');
  for (const [event, keys] of Object.entries(seen.events)) {
    const entry = eventMap.members.get(event);
    assert.ok(entry && entry.type && ts.isTupleTypeNode(entry.type), `FerritCacheEvents declares no "${event}"`);
    const first = entry.type.elements[0];
    const valueType = first && ts.isNamedTupleMember(first) ? first.type : first;
    if (Array.isArray(keys)) {
      assertKeys(interfaceName(valueType), keys, `a "${event}" event`);
    } else {
      const kinds = kindsOf(ts, valueType, declarations.aliases);
      assert.ok(admits(kinds, keys), `a "${event}" event carries ${typeof keys}, declared ${[...kinds].join(' | ')}`);
    }
  }
});
