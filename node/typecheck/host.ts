// The README's host in one file, in TypeScript: open(), the events, update() and get(), checked
// against index.d.ts in strict mode.
import * as fs from 'fs';
import * as ferrit from 'ferritcore';

async function main(): Promise<void> {
  const [server, url] = process.argv.slice(2);
  const cache: ferrit.FerritCache = await ferrit.open({
    root: './ferrit-cache',
    appKey: 'demo',
    appVersion: '1.0',
    publicKey: fs.readFileSync('publisher.pub.pem'),
    server,
  });

  cache.on('state', (status) => console.log(`state: ${status.state}, storage ${status.storage}`));
  cache.on('packUpdated', (name) => console.log(`pack ${name} updated`));
  cache.on('queueFinished', (count) => console.log(`update queue finished: ${count.toFixed(0)} packs`));
  cache.on('record', (record) => console.log(record.name, Object.keys(record.measures)));
  cache.on('log', (entry) => {
    if (entry.level <= 2) console.log(`log: ${entry.tag} ${entry.event} ${entry.message ?? ''}`);
  });

  try {
    const { version, packs } = await cache.update();
    console.log(`configuration ${version}`);
    for (const pack of packs) console.log(`pack ${pack.name}: ${pack.error ? pack.error.message : 'installed'}`);
  } catch (error) {
    if (error instanceof ferrit.FerritError) console.log(`no update: ${error.reason} (${error.code})`);
  }

  const answer = await cache.get(url, { headers: { Accept: 'text/html' } });
  if (answer.hit) console.log(`${url}: ${answer.body.length} bytes from the pack`);
  else console.log(`${url}: not served (${answer.code} ${answer.reason})`);

  const status = await cache.status();
  console.log(status.state, status.problems.join(', '));
  await cache.close();
  process.exitCode = answer.hit ? 0 : 1;
}

main().catch((error: unknown) => {
  console.error(error);
  process.exitCode = 1;
});
