'use strict';
// What the browser story uses: nginx run as the test's own process on a loopback port, a
// forwarding proxy that adds latency, the test app's site in two versions, `ferrit publish`, and
// the system Chromium through puppeteer-core.
const { spawn, execFileSync } = require('child_process');
const fs = require('fs');
const http = require('http');
const net = require('net');
const os = require('os');
const path = require('path');
const zlib = require('zlib');

const { servePage } = require('../../node/browser');

const repo = path.resolve(__dirname, '..', '..');
const build = process.env.FERRIT_BUILD || path.join(repo, 'build');
const ferritTool = path.join(build, 'tools', 'ferrit');
const keys = path.join(repo, 'tools', 'sample', 'keys');
const privateKey = path.join(keys, 'sample-ed25519.pem');
const publicKey = path.join(keys, 'sample-ed25519.pub.pem');

// The page holds this many resources besides itself, so that it and its resources make 60.
const kResourcesBesides = 59;
const kScripts = 20;
const kStyles = 19;
// The app's own host name, which the browser resolves to whichever server a step wants.
const kAppHost = 'story.test';
const kAppOrigin = `http://${kAppHost}`;

function scratch(name) {
  return fs.mkdtempSync(path.join(os.tmpdir(), `ferrit-${name}-`));
}

function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

function canConnect(port) {
  return new Promise((resolve) => {
    const socket = net.connect(port, '127.0.0.1');
    socket.on('connect', () => {
      socket.destroy();
      resolve(true);
    });
    socket.on('error', () => resolve(false));
  });
}

function findBinary(names) {
  for (const name of names) {
    for (const dir of (process.env.PATH || '').split(':').concat(['/usr/sbin', '/usr/bin'])) {
      const candidate = path.join(dir, name);
      if (fs.existsSync(candidate)) return candidate;
    }
  }
  return null;
}

// nginx serving `tree` (the published packs and configuration) and `siteRoot` (the app's own
// files under each of `sitePaths`, /app/ unless told) on 127.0.0.1:port, with its configuration, logs and temporary folders below
// `dir`. The cache rules that `ferrit publish` writes beside the tree ("<tree>.nginx.conf") are
// included when they exist at start(), as a server of the tree would include them. start() and
// stop() may be called again; stop() waits for the process to end.
class Nginx {
  constructor({ dir, tree, siteRoot, port, sitePaths = ['/app/'] }) {
    Object.assign(this, { dir, tree, siteRoot, port });
    this.binary = findBinary(['nginx']);
    if (!this.binary) throw new Error('nginx is not installed (scripts/setup.sh installs it)');
    this.process = null;
    for (const sub of ['logs', 'temp']) fs.mkdirSync(path.join(dir, sub), { recursive: true });
    const t = (name) => path.join(dir, 'temp', name);
    // Run as root, nginx's workers would become "nobody", who cannot read the test's folders.
    const user = process.getuid && process.getuid() === 0 ? `user ${os.userInfo().username};` : '';
    this.conf = path.join(dir, 'nginx.conf');
    this.cacheRules = `${tree}.nginx.conf`;
    this.writeConf = () => fs.writeFileSync(this.conf, `${user}
worker_processes 1;
daemon off;
pid ${path.join(dir, 'nginx.pid')};
error_log ${path.join(dir, 'logs', 'error.log')} warn;
events { worker_connections 512; }
http {
  access_log ${path.join(dir, 'logs', 'access.log')};
  client_body_temp_path ${t('body')};
  proxy_temp_path ${t('proxy')};
  fastcgi_temp_path ${t('fastcgi')};
  uwsgi_temp_path ${t('uwsgi')};
  scgi_temp_path ${t('scgi')};
  types { text/html html; text/css css; application/javascript js; image/png png; application/zip zip; }
  default_type application/octet-stream;
  server {
    listen 127.0.0.1:${port};
    root ${tree};
    ${sitePaths.map((p) => `location ${p} { root ${siteRoot}; }`).join('\n    ')}
    ${fs.existsSync(this.cacheRules) ? `include ${this.cacheRules};` : ''}
  }
}
`);
  }

  async start() {
    if (this.process) return;
    this.writeConf();
    const child = spawn(this.binary, ['-p', this.dir, '-c', this.conf, '-e', path.join(this.dir, 'logs', 'error.log')], {
      stdio: ['ignore', 'ignore', 'pipe'],
    });
    let stderr = '';
    child.stderr.on('data', (chunk) => {
      stderr += chunk;
    });
    this.process = child;
    this.exited = new Promise((resolve) => child.on('exit', resolve));
    for (let i = 0; i < 500; ++i) {
      if (child.exitCode !== null) throw new Error(`nginx exited: ${stderr}`);
      if (await canConnect(this.port)) return;
      await new Promise((resolve) => setTimeout(resolve, 10));
    }
    throw new Error(`nginx did not listen on ${this.port}: ${stderr}`);
  }

  async stop() {
    if (!this.process) return;
    const child = this.process;
    this.process = null;
    child.kill('SIGTERM');
    await this.exited;
  }

  // Paths asked for since the start, from the access log.
  requestedPaths() {
    const log = path.join(this.dir, 'logs', 'access.log');
    if (!fs.existsSync(log)) return [];
    return fs.readFileSync(log, 'utf8').split('\n').filter(Boolean)
      .map((line) => (line.match(/"[A-Z]+ (\S+) HTTP/) || [])[1]).filter(Boolean);
  }
}

// A forwarding proxy on loopback that holds every request `delayMs` before passing it to
// 127.0.0.1:targetPort. Resolves with {port, close()}.
function startDelayProxy(targetPort, delayMs) {
  const agent = new http.Agent({ keepAlive: true });
  const server = http.createServer((req, res) => {
    setTimeout(() => {
      const upstream = http.request({ host: '127.0.0.1', port: targetPort, path: req.url, method: req.method, headers: req.headers, agent }, (answer) => {
        res.writeHead(answer.statusCode, answer.headers);
        answer.pipe(res);
      });
      upstream.on('error', () => {
        res.writeHead(502);
        res.end();
      });
      req.pipe(upstream);
    }, delayMs);
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => {
      resolve({
        port: server.address().port,
        close: () => new Promise((done) => {
          agent.destroy();
          server.closeAllConnections();
          server.close(done);
        }),
      });
    });
  });
}

// A PNG of one colour, w x h.
function png(w, h, [r, g, b]) {
  const chunk = (type, data) => {
    const length = Buffer.alloc(4);
    length.writeUInt32BE(data.length);
    const body = Buffer.concat([Buffer.from(type, 'latin1'), data]);
    const sum = Buffer.alloc(4);
    sum.writeUInt32BE(zlib.crc32(body));
    return Buffer.concat([length, body, sum]);
  };
  const header = Buffer.alloc(13);
  header.writeUInt32BE(w, 0);
  header.writeUInt32BE(h, 4);
  header[8] = 8;  // bit depth
  header[9] = 2;  // truecolour
  const row = Buffer.concat([Buffer.from([0]), Buffer.from(Array(w).fill([r, g, b]).flat())]);
  const pixels = zlib.deflateSync(Buffer.concat(Array(h).fill(row)));
  return Buffer.concat([Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
    chunk('IHDR', header), chunk('IDAT', pixels), chunk('IEND', Buffer.alloc(0))]);
}

// The large real script the app carries: the main script of the newer pinned release (the e2e
// lock's "release-new", a charting library of about 11 MB), and its version, which its one line
// `exports.version = "<version>";` sets and the library reports as `Plotly.version`.
const releaseFolder = path.join(__dirname, 'node_modules', 'release-new');
function releaseScript() {
  const described = path.join(releaseFolder, 'package.json');
  // A tree installed before the lock pinned the releases lacks them: say what installs them.
  if (!fs.existsSync(described)) throw new Error(`${releaseFolder} is missing (scripts/setup.sh installs it)`);
  const release = JSON.parse(fs.readFileSync(described, 'utf8'));
  return { bytes: fs.readFileSync(path.join(releaseFolder, release.main)), version: release.version };
}
// The line of the large script that sets its version.
function versionLine(version) {
  return `exports.version = ${JSON.stringify(version)};`;
}

// The app: index.html with kResourcesBesides resources (scripts that each add one to a counter,
// style sheets, the banner's colour and images), all by relative URL. `headline` is the text the
// page shows; `banner` its colour.
function writeSite(siteRoot, { headline, banner }) {
  const app = path.join(siteRoot, 'app');
  for (const sub of ['js', 'css', 'img']) fs.mkdirSync(path.join(app, sub), { recursive: true });
  const tags = [];
  for (let i = 0; i < kScripts; ++i) {
    fs.writeFileSync(path.join(app, 'js', `part${i}.js`), `window.parts = (window.parts || 0) + 1; // part ${i}\n`);
    tags.push(`<script src="js/part${i}.js"></script>`);
  }
  for (let i = 0; i < kStyles; ++i) {
    const rule = i === 0 ? `#banner { background: rgb(${banner.join(',')}); width: 200px; height: 100px; }`
      : `.s${i} { margin: ${i}px; }`;
    fs.writeFileSync(path.join(app, 'css', `style${i}.css`), `${rule}\n`);
    tags.push(`<link rel="stylesheet" href="css/style${i}.css">`);
  }
  const images = kResourcesBesides - kScripts - kStyles;
  const imageTags = [];
  for (let i = 0; i < images; ++i) {
    fs.writeFileSync(path.join(app, 'img', `tile${i}.png`), png(8, 8, [i * 10 % 256, 80, 160]));
    imageTags.push(`<img class="tile" src="img/tile${i}.png" width="8" height="8">`);
  }
  fs.writeFileSync(path.join(app, 'js', 'part0.js'),
    `window.parts = (window.parts || 0) + 1; document.addEventListener('DOMContentLoaded', () => {
  document.getElementById('headline').textContent = ${JSON.stringify(headline)};
  document.getElementById('count').textContent = String(window.parts);
});\n`);
  // chart.html loads the large script and shows the version it reports; index.html does not
  // load it, so the story's page stays as it was.
  const release = releaseScript();
  fs.writeFileSync(path.join(app, 'js', 'chart.js'), release.bytes);
  fs.writeFileSync(path.join(app, 'js', 'chart-show.js'), `document.addEventListener('DOMContentLoaded', () => {
  document.getElementById('version').textContent = window.Plotly ? window.Plotly.version : 'missing';
});\n`);
  fs.writeFileSync(path.join(app, 'chart.html'), `<!doctype html>
<html><head><meta charset="utf-8"><title>ferritcore chart</title>
<script src="js/chart.js"></script>
<script src="js/chart-show.js"></script>
</head><body><p id="version">loading</p></body></html>
`);
  fs.writeFileSync(path.join(app, 'index.html'), `<!doctype html>
<html><head><meta charset="utf-8"><title>ferritcore story</title>
${tags.join('\n')}
</head><body style="margin:0">
<div id="banner"></div>
<h1 id="headline">loading</h1><p id="count">0</p>
${imageTags.join('\n')}
</body></html>
`);
}

// Changes one line of the app's large script: its version becomes `version`. Returns the
// version it had.
function changeScriptVersion(siteRoot, version) {
  const file = path.join(siteRoot, 'app', 'js', 'chart.js');
  const text = fs.readFileSync(file, 'latin1');
  const { version: was } = releaseScript();
  const line = versionLine(was);
  const at = text.indexOf(line);
  if (at < 0 || text.indexOf(line, at + 1) >= 0) throw new Error(`chart.js does not set its version once: ${line}`);
  fs.writeFileSync(file, text.slice(0, at) + versionLine(version) + text.slice(at + line.length), 'latin1');
  return was;
}

// The publisher's manifest: the story's pack of the app's folder, and each of `more` ({name,
// folder}), whose prefix is its folder's URL on the app's host.
function writeManifest(file, more = []) {
  fs.writeFileSync(file, JSON.stringify({
    app: { key: 'story', version: '1.0', locale: 'en' },
    zips: 'packs/',
    packs: [{ name: 'story', folder: 'app', prefix: `${kAppOrigin}/app/`, priority: 9 },
      ...more.map(({ name, folder }) => ({ name, folder, prefix: `${kAppOrigin}/${folder}/`, priority: 9 }))],
  }));
}

// A page whose main script is a bundle of `bytes` bytes (many small functions inside one wrapper,
// as a bundler writes them, the same text on every run), with a style sheet, two small scripts
// and an image, in siteRoot/folder. The bundle sets window.bundleReady to its function count.
function writeBundleSite(siteRoot, folder, bytes) {
  const dir = path.join(siteRoot, folder);
  fs.mkdirSync(dir, { recursive: true });
  let seed = 12345;
  const next = () => {
    seed = (Math.imul(seed, 1103515245) + 12345) >>> 0;
    return seed;
  };
  const words = ['parse', 'render', 'layout', 'token', 'buffer', 'cursor', 'select', 'theme', 'worker', 'model'];
  const parts = ['(function () {\n"use strict";\nconst registry = Object.create(null);\n'];
  let size = parts[0].length;
  let count = 0;
  const tail = 'window.bundleReady = Object.keys(registry).length + (registry.f0("ready") ? 0 : 0);\n})();\n';
  while (size + tail.length < bytes) {
    const table = Array.from({ length: 4 + (next() % 12) }, () => next() % 1000).join(', ');
    const word = `${words[next() % words.length]}${words[next() % words.length]}`;
    const text = `// ${word}: folds its input with a table of its own
function f${count}(input, options) {
  const table = [${table}];
  let acc = ${next() % 100000};
  for (let i = 0; i < input.length; ++i) acc = (acc * 31 + table[i % table.length] + input.charCodeAt(i)) | 0;
  if (options && options.trace) console.log(${JSON.stringify(word)}, acc);
  return options && options.next ? registry[options.next](String(acc)) : acc;
}
registry.f${count} = f${count};
`;
    parts.push(text);
    size += text.length;
    ++count;
  }
  parts.push(tail);
  const bundle = parts.join('');
  fs.writeFileSync(path.join(dir, 'bundle.js'), bundle.padEnd(bytes, ' '));
  fs.writeFileSync(path.join(dir, 'style.css'), 'body { margin: 0; font: 14px sans-serif; }\n#status { color: #264; }\n');
  fs.writeFileSync(path.join(dir, 'boot.js'), 'window.booted = true;\n');
  fs.writeFileSync(path.join(dir, 'after.js'), 'document.addEventListener("DOMContentLoaded", () => { document.getElementById("status").textContent = "ready " + window.bundleReady; });\n');
  fs.writeFileSync(path.join(dir, 'logo.png'), png(32, 32, [40, 90, 160]));
  fs.writeFileSync(path.join(dir, 'index.html'), `<!doctype html>
<html><head><meta charset="utf-8"><title>bundle</title>
<link rel="stylesheet" href="style.css">
<script src="boot.js"></script>
<script src="bundle.js"></script>
<script src="after.js"></script>
</head><body><img src="logo.png" width="32" height="32"><p id="status">loading</p></body></html>
`);
  return count;
}

function publish(siteRoot, manifest, tree) {
  return execFileSync(ferritTool, ['publish', '--key', privateKey, '--manifest', manifest, siteRoot, tree], {
    encoding: 'utf8',
  });
}

function chromiumPath() {
  return process.env.CHROMIUM_PATH || findBinary(['chromium', 'chromium-browser']);
}

// `site` is "host:port" that the app's host name (and each of `hosts`) resolves to.
async function launchBrowser(site, { hosts = [] } = {}) {
  const puppeteer = require('puppeteer-core');
  const executablePath = chromiumPath();
  if (!executablePath) throw new Error('chromium is not installed (scripts/setup.sh installs it)');
  return puppeteer.launch({
    executablePath,
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking',
      '--proxy-server=direct://', '--proxy-bypass-list=*', `--host-resolver-rules=${[kAppHost, ...hosts].map((h) => `MAP ${h} ${site}`).join(', ')}`],
  });
}

// Opens `url` in a fresh page whose every request under the packs is answered from `cache` (an
// open FerritCache) through the package's servePage, falling back to the network on a miss as a web view's host
// does. Resolves with {page, ms, served} where served lists {url, fromPack, code?, reason?}; the
// page's server goes when the page closes.
async function loadThroughHost(browser, cache, url, { intercept = true } = {}) {
  const page = await browser.newPage();
  await page.setViewport({ width: 400, height: 300 });
  await page.setCacheEnabled(false);
  let served = [];
  if (intercept) {
    served = (await servePage(page, cache)).served;
  } else {
    page.on('requestfinished', (request) => {
      if (!request.url().endsWith('/favicon.ico')) served.push({ url: request.url(), fromPack: false });
    });
  }
  const started = performance.now();
  await page.goto(url, { waitUntil: 'load' });
  const ms = performance.now() - started;
  return { page, ms, served };
}

// The colour of the pixel at (x, y) of a screenshot, decoded by the browser itself on a page of
// its own.
async function pixelAt(browser, pngBytes, x, y) {
  const page = await browser.newPage();
  try {
    return await page.evaluate(async (base64, px, py) => {
      const image = new Image();
      image.src = `data:image/png;base64,${base64}`;
      await image.decode();
      const canvas = document.createElement('canvas');
      canvas.width = image.width;
      canvas.height = image.height;
      const context = canvas.getContext('2d');
      context.drawImage(image, 0, 0);
      return Array.from(context.getImageData(px, py, 1, 1).data.slice(0, 3));
    }, Buffer.from(pngBytes).toString('base64'), x, y);
  } finally {
    await page.close();
  }
}

module.exports = {
  repo, build, ferritTool, publicKey, scratch, freePort, Nginx, startDelayProxy, writeSite,
  writeManifest, writeBundleSite, changeScriptVersion, publish, chromiumPath, launchBrowser, loadThroughHost, pixelAt, kResourcesBesides, kAppOrigin,
};
