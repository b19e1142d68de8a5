#!/usr/bin/env node
'use strict';
// Runs the host example as an app would: starts the library against a configuration and zip
// server, installs the packs it names, serves the inspector page on loopback, and answers URLs
// given on the command line from the packs.
//
//   node examples/node-host/main.js --root DIR --server URL --public-key PEM --app-key KEY
//        --app-version V [--locale L] [--zips PATH] [--inspector-port N] [URL...]
//
// URL is the published tree's address (as `ferrit publish` wrote it); zips are below it at PATH
// (default "packs/"). With --inspector-port the page stays up until the process is stopped.
const { FerritHost } = require('./FerritHost');

function parse(argv) {
  const options = { zips: 'packs/', locale: 'en', urls: [] };
  const names = { '--root': 'root', '--server': 'server', '--public-key': 'publicKey', '--app-key': 'appKey',
    '--app-version': 'appVersion', '--locale': 'locale', '--zips': 'zips', '--inspector-port': 'inspectorPort' };
  for (let i = 0; i < argv.length; ++i) {
    const name = names[argv[i]];
    if (name) {
      if (i + 1 >= argv.length) throw new Error(`missing value after ${argv[i]}`);
      options[name] = argv[++i];
    } else if (argv[i].startsWith('-')) {
      throw new Error(`unknown option ${argv[i]}`);
    } else {
      options.urls.push(argv[i]);
    }
  }
  for (const required of ['root', 'server', 'publicKey', 'appKey', 'appVersion']) {
    if (!options[required]) throw new Error(`--${required.replace(/[A-Z]/g, (c) => `-${c.toLowerCase()}`)} is required`);
  }
  if (!options.server.endsWith('/')) options.server += '/';
  return options;
}

async function main() {
  const o = parse(process.argv.slice(2));
  const host = new FerritHost({
    root: o.root, rawFiles: null, appKey: o.appKey, appVersion: o.appVersion, locale: o.locale,
    configPrefix: o.server, zipPrefix: new URL(o.zips, o.server).href, publicKeyPem: o.publicKey,
  });
  for (const result of await host.start()) {
    console.log(`pack ${result.name}: ${result.error ? `failed (${result.error})` : 'installed'} in ${result.ms} ms`);
  }
  for (const url of o.urls) {
    const answer = await host.getResource(url);
    console.log(`${url}: ${answer.fromPack ? `${answer.body.length} bytes from the pack` : `not from a pack (${answer.error})`}`);
  }
  if (o.inspectorPort === undefined) {
    await host.close();  // nothing is left running: the process ends by itself
    return;
  }
  const { url } = await host.serveInspector(Number(o.inspectorPort));
  console.log(`inspector page: ${url}`);
}

main().catch((error) => {
  console.error(`node-host: ${error.message}`);
  process.exitCode = 1;
});
