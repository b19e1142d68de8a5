'use strict';
// The package README's browser example, as written: the ```js block of "Serving a browser page"
// saved as page.js in a folder that holds the publisher's public key and, as a user's
// `npm install` leaves them, `ferritcore` and `puppeteer-core` in its node_modules; run as
// `node page.js SERVER URL` against a tree published for app "demo" 1.0 in the locale Intl gives.
// One loopback server is both the tree's server and the app's own site, whose files differ from
// the pack's, so that each line the example prints can be checked against where the bytes came
// from: once with the server up (it installs and the page comes from the pack, a file the pack
// lacks from the site), once with it stopped (the page still comes from the pack), and once for a
// page the pack lacks (the example says so and exits 1). And the README's recipe for a tree to
// try the examples with makes one the example serves its page from.
const assert = require('node:assert/strict');
const { execFileSync } = require('child_process');
const fs = require('fs');
const http = require('http');
const path = require('path');
const { test } = require('node:test');

const s = require('./support');
const { runNode } = require('../../node/test/openTree');

const readme = path.join(s.repo, 'node', 'README.md');
const kSection = '## Serving a browser page';
// Far above the few seconds a run takes; only a hang reaches it.
const kHangMs = 30000;

// The pack's page: its title, changed by its script (so the script from the pack ran), and a
// style sheet; extra.js and other.html are only on the site.
const packFiles = {
  'index.html': '<!doctype html><html><head><meta charset="utf-8"><title>readme page</title>' +
    '<link rel="stylesheet" href="style.css"><script src="app.js"></script><script src="extra.js"></script>' +
    '</head><body><p>served from the pack</p></body></html>\n',
  'style.css': 'p { color: rgb(10, 20, 30); }\n',
  'app.js': "document.title += ' ran';\n",
};
const siteFiles = {
  'index.html': '<!doctype html><title>from the site</title>\n',
  'extra.js': '// from the site\n',
  'other.html': '<!doctype html><title>other from the site</title>\n',
};

function browserExample(text) {
  const section = text.indexOf(`\n${kSection}\n`);
  assert.notEqual(section, -1, `the README has a section "${kSection}"`);
  const match = /^```js[ \t]*\n([\s\S]*?)^```/m.exec(text.slice(section));
  assert.ok(match, `the section "${kSection}" has a \`\`\`js block`);
  return match[1];
}

// Serves the tree below / and the site's files below /app/ on 127.0.0.1, recording each path;
// stop() closes it and its connections.
async function serveTreeAndSite(tree) {
  const hits = [];
  const server = http.createServer((req, res) => {
    const url = decodeURIComponent(req.url.split('?')[0]);
    hits.push(url);
    const site = url.startsWith('/app/') ? siteFiles[url.slice('/app/'.length)] : undefined;
    if (site !== undefined) {
      res.writeHead(200, { 'content-type': url.endsWith('.js') ? 'application/javascript' : 'text/html' });
      res.end(site);
      return;
    }
    const file = path.join(tree, url);
    fs.readFile(file, (error, body) => {
      if (error || !file.startsWith(tree + path.sep)) res.writeHead(404).end();
      else res.writeHead(200, { 'content-type': 'application/octet-stream' }).end(body);
    });
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    base: `http://127.0.0.1:${server.address().port}/`,
    hits,
    stop: () => new Promise((resolve) => {
      server.close(() => resolve());
      server.closeAllConnections();
    }),
  };
}

async function runExample(folder, server, url) {
  const env = { ...process.env, FERRITCORE_ADDON: path.join(s.build, 'node', 'ferritcore.node'), CHROMIUM_PATH: s.chromiumPath() };
  const run = await runNode(['page.js', server, url], { cwd: folder, env, hangMs: kHangMs });
  return { ...run, lines: run.out.split('\n') };
}

// The example as page.js in `folder`, with ferritcore and puppeteer-core in its node_modules.
function userFolder(folder) {
  const modules = path.join(folder, 'node_modules');
  fs.mkdirSync(modules, { recursive: true });
  fs.symlinkSync(path.join(s.repo, 'node'), path.join(modules, 'ferritcore'), 'dir');
  fs.symlinkSync(path.dirname(require.resolve('puppeteer-core/package.json')), path.join(modules, 'puppeteer-core'), 'dir');
  fs.writeFileSync(path.join(folder, 'page.js'), browserExample(fs.readFileSync(readme, 'utf8')));
}

// The README's recipe for a tree (its ```sh block) without its last line, which serves the tree
// and runs until stopped: the test serves the tree itself.
function treeRecipe(text) {
  const match = /^```sh[ \t]*\n([\s\S]*?)^```/m.exec(text);
  assert.ok(match, 'the README has a ```sh block');
  const lines = match[1].trimEnd().split('\n');
  assert.match(lines.at(-1), /http\.server/, 'the recipe ends by serving the tree');
  return `set -e\n${lines.slice(0, -1).join('\n')}\n`;
}

const escape = (text) => text.replace(/[.*+?^${}()|[\]\\/]/g, '\\$&');

test('ReadmeTest.BrowserExampleRunsAsWritten', async (t) => {
  const dir = s.scratch('readme');
  t.after(() => fs.rmSync(dir, { recursive: true, force: true }));
  const server = await serveTreeAndSite(path.join(dir, 'tree'));
  t.after(() => server.stop());
  const prefix = `${server.base}app/`;

  // The publisher's side: the pack's files, published for the app the example opens.
  const locale = Intl.DateTimeFormat().resolvedOptions().locale;
  for (const [name, text] of Object.entries(packFiles)) {
    fs.mkdirSync(path.join(dir, 'site', 'app'), { recursive: true });
    fs.writeFileSync(path.join(dir, 'site', 'app', name), text);
  }
  fs.writeFileSync(path.join(dir, 'manifest.json'), JSON.stringify({
    app: { key: 'demo', version: '1.0', locale },
    zips: 'packs/',
    packs: [{ name: 'site', folder: 'app', prefix, priority: 9 }],
  }));
  s.publish(path.join(dir, 'site'), path.join(dir, 'manifest.json'), path.join(dir, 'tree'));

  // The user's side: the example, the key, and the two packages it requires.
  const folder = path.join(dir, 'app');
  userFolder(folder);
  fs.copyFileSync(s.publicKey, path.join(folder, 'publisher.pub.pem'));

  const page = `${prefix}index.html`;
  const fromPack = [`${page}: from the pack`, `${prefix}style.css: from the pack`, `${prefix}app.js: from the pack`];
  const extraFromNetwork = new RegExp(`^${escape(prefix)}extra\\.js: network \\(\\d+ .+\\)$`, 'm');
  const title = 'title: readme page ran';

  const online = await runExample(folder, server.base, page);
  assert.equal(online.signal, null, online.err);
  assert.equal(online.code, 0, `${online.out}\n${online.err}`);
  for (const line of [...fromPack, title]) assert.ok(online.lines.includes(line), `"${line}" in:\n${online.out}`);
  assert.match(online.out, extraFromNetwork);
  assert.ok(server.hits.some((hit) => hit.startsWith('/packs/')), 'the example installed the pack');
  assert.ok(server.hits.includes('/app/extra.js'), 'the file the pack lacks came from the site');
  for (const name of Object.keys(packFiles)) assert.ok(!server.hits.includes(`/app/${name}`), `${name} never reached the site`);

  // Any page the pack lacks: the site's, which the example does not count as served.
  const other = await runExample(folder, server.base, `${prefix}other.html`);
  assert.equal(other.code, 1, `${other.out}\n${other.err}`);
  assert.match(other.out, new RegExp(`^${escape(prefix)}other\\.html: network \\(\\d+ .+\\)$`, 'm'));
  assert.ok(other.lines.includes('title: other from the site'), other.out);

  await server.stop();
  const offline = await runExample(folder, server.base, page);
  assert.equal(offline.code, 0, `${offline.out}\n${offline.err}`);
  assert.match(offline.out, /^no update: /m);
  for (const line of [...fromPack, title]) assert.ok(offline.lines.includes(line), `"${line}" in:\n${offline.out}`);
});

test('ReadmeTest.TreeRecipeServesTheBrowserExample', async (t) => {
  const dir = s.scratch('readme-tree');
  t.after(() => fs.rmSync(dir, { recursive: true, force: true }));
  userFolder(dir);
  fs.writeFileSync(path.join(dir, 'tree.sh'), treeRecipe(fs.readFileSync(readme, 'utf8')));
  execFileSync('bash', ['tree.sh'], {
    cwd: dir, stdio: 'pipe', env: { ...process.env, PATH: `${path.dirname(s.ferritTool)}:${process.env.PATH}` },
  });
  const server = await serveTreeAndSite(path.join(dir, 'tree'));
  t.after(() => server.stop());

  const url = 'https://app.example.com/index.html';
  const run = await runExample(dir, server.base, url);
  assert.equal(run.code, 0, `${run.out}\n${run.err}`);
  assert.ok(run.lines.includes(`${url}: from the pack`), run.out);
  assert.ok(run.lines.includes('title: Hello from the pack'), run.out);
});
