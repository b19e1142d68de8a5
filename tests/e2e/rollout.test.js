'use strict';
// A staged rollout through the real tool against a tree that nginx serves, watched by two real
// hosts: node processes that open the Node package on roots of their own and install what the
// configuration names. Each root holds an install identifier chosen before the first start, so
// that host "early" is in the first 10% of devices for the pack and host "later" joins between
// 10% and 50%. At each step (`ferrit publish` of version 1, `ferrit rollout --percent 10`, 50,
// `ferrit promote`, `ferrit rollback`) both hosts start, update and report what they serve.
const assert = require('node:assert/strict');
const crypto = require('crypto');
const { execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');
const { test } = require('node:test');

const s = require('./support');
const { runNode } = require('../../node/test/openTree');

const kPack = 'shop';
const kPrefix = 'https://shop.example.com/app/';
const kApp = { appKey: 'rollout', appVersion: '1.0', locale: 'en-US' };
// Shares in basis points, as the documents carry them.
const kScale = 10000;
const kTenPercent = 1000;
const kHalf = 5000;
// Far above the second or so a host takes; only a hang reaches it.
const kHangMs = 30000;

const version1 = { 'index.html': '<p>one</p>\n', 'app.js': 'run(1);\n', 'only-one.txt': 'in one only\n' };
const version2 = { 'index.html': '<p>two</p>\n', 'app.js': 'run(2);\n', 'only-two.txt': 'in two only\n' };

// A device's slot for a pack, as docs/rollout.md defines it: the first 8 bytes of the SHA-256 of
// "<identifier>/<pack>", big-endian, modulo 10000. The hosts compute it in the library; the test
// only picks identifiers with it, so a definition that drifted would put a host in the wrong
// cohort and fail the steps below.
function slot(id, pack) {
  const digest = crypto.createHash('sha256').update(`${id}/${pack}`).digest();
  return Number(digest.readBigUInt64BE(0) % BigInt(kScale));
}

function idWithSlot(low, high) {
  for (let n = 0; ; ++n) {
    const id = `e2e-host-${n}`;
    const at = slot(id, kPack);
    if (at >= low && at < high) return id;
  }
}

// One host run: opens the package on `root` against the server, updates, and prints what each
// file of both versions answers, as JSON: {path: body or null}.
const hostScript = `
'use strict';
const ferrit = require(${JSON.stringify(path.join(s.repo, 'node'))});
const fs = require('fs');
const [root, server, publicKey] = process.argv.slice(2);
(async () => {
  const cache = await ferrit.open({ root, server, publicKey: fs.readFileSync(publicKey),
    ...${JSON.stringify(kApp)}, autoUpdate: false, logLevel: 1 });
  const result = await cache.update();
  const errors = result.packs.filter((pack) => pack.error).map((pack) => pack.error.message);
  const answers = {};
  for (const file of ${JSON.stringify([...new Set([...Object.keys(version1), ...Object.keys(version2)])])}) {
    const answer = await cache.get(${JSON.stringify(kPrefix)} + file);
    answers[file] = answer.hit ? answer.body.toString() : null;
  }
  await cache.close();
  console.log(JSON.stringify({ answers, errors }));
})().catch((error) => { console.error(error); process.exit(1); });
`;

test('RolloutThroughNginxTest', async (t) => {
  const dir = s.scratch('rollout');
  t.after(() => fs.rmSync(dir, { recursive: true, force: true }));
  const site = path.join(dir, 'site');
  const tree = path.join(dir, 'tree');
  const manifest = path.join(dir, 'manifest.json');
  fs.writeFileSync(manifest, JSON.stringify({
    app: { key: kApp.appKey, version: kApp.appVersion, locale: kApp.locale },
    zips: 'packs/',
    packs: [{ name: kPack, folder: 'app', prefix: kPrefix, priority: 9 }],
  }));
  const writeSite = (files) => {
    fs.rmSync(path.join(site, 'app'), { recursive: true, force: true });
    fs.mkdirSync(path.join(site, 'app'), { recursive: true });
    for (const [file, text] of Object.entries(files)) fs.writeFileSync(path.join(site, 'app', file), text);
  };
  const tool = (...args) => execFileSync(s.ferritTool, [...args], { encoding: 'utf8' });
  const keyArgs = ['--key', path.join(s.repo, 'tools', 'sample', 'keys', 'sample-ed25519.pem'), '--manifest', manifest];

  writeSite(version1);
  tool('publish', ...keyArgs, site, tree);
  const port = await s.freePort();
  const nginx = new s.Nginx({ dir: path.join(dir, 'nginx'), tree, siteRoot: site, port, sitePaths: [] });
  await nginx.start();
  t.after(() => nginx.stop());
  const server = `http://127.0.0.1:${port}/`;

  const script = path.join(dir, 'host.js');
  fs.writeFileSync(script, hostScript);
  const hosts = {
    early: { id: idWithSlot(0, kTenPercent) },
    later: { id: idWithSlot(kTenPercent, kHalf) },
  };
  for (const [name, host] of Object.entries(hosts)) {
    host.root = path.join(dir, `root-${name}`);
    fs.mkdirSync(host.root, { recursive: true });
    fs.writeFileSync(path.join(host.root, 'install-id'), `${host.id}\n`);
  }
  const env = { ...process.env, FERRITCORE_ADDON: path.join(s.build, 'node', 'ferritcore.node'), FERRIT_LOG_LEVEL: '1' };
  const serves = async (name) => {
    const run = await runNode([script, hosts[name].root, server, s.publicKey], { env, hangMs: kHangMs });
    assert.equal(run.code, 0, `host ${name}: ${run.err}`);
    const report = JSON.parse(run.out.trim().split('\n').pop());
    assert.deepEqual(report.errors, [], `host ${name}`);
    return report.answers;
  };
  // What a host serves when it has exactly `files`: each of them, and nothing of the other version.
  const exactly = (files) => {
    const answers = {};
    for (const file of new Set([...Object.keys(version1), ...Object.keys(version2)])) answers[file] = files[file] ?? null;
    return answers;
  };
  const step = async (what, early, later) => {
    assert.deepEqual(await serves('early'), exactly(early), `${what}: host early`);
    assert.deepEqual(await serves('later'), exactly(later), `${what}: host later`);
  };

  await t.test('PublishedVersionOneOnBoth', () => step('publish', version1, version1));

  await t.test('TenPercentReachesTheEarlyHostOnly', async () => {
    writeSite(version2);
    const out = JSON.parse(tool('rollout', ...keyArgs, '--percent', '10', '--json', kPack, site, tree));
    assert.deepEqual(out.after, { released: 1, rollout: 2, percent: 10 });
    await step('10%', version2, version1);
  });

  await t.test('FiftyPercentKeepsTheEarlyHostAndBringsTheLaterOne', async () => {
    tool('rollout', ...keyArgs, '--percent', '50', kPack, site, tree);
    await step('50%', version2, version2);
  });

  await t.test('PromotionDownloadsNothingOnHostsThatHaveIt', async () => {
    const before = nginx.requestedPaths().length;
    tool('promote', ...keyArgs, kPack, tree);
    await step('promote', version2, version2);
    const zips = nginx.requestedPaths().slice(before).filter((p) => p.endsWith('.zip'));
    assert.deepEqual(zips, [], 'no zip downloaded after the promotion');
  });

  await t.test('RollbackBringsBothHostsToVersionOneExactly', async () => {
    const out = JSON.parse(tool('rollback', ...keyArgs, '--json', kPack, tree));
    assert.deepEqual(out.after, { released: 3 });
    const before = nginx.requestedPaths().length;
    await step('rollback', version1, version1);
    const zips = nginx.requestedPaths().slice(before).filter((p) => p.endsWith('.zip'));
    assert.deepEqual(zips, [`/packs/${kPack}/i/3.zip`, `/packs/${kPack}/i/3.zip`], 'each host took the increment');
  });
});
