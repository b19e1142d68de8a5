// Every line marked with an error code must fail to compile with that code: an answer is a hit or
// a miss, and only a hit has a body.
import * as ferrit from 'ferritcore';

async function misuse(cache: ferrit.FerritCache): Promise<void> {
  const answer = await cache.get('https://example.com/a.js');
  console.log(answer.body.length); // error TS2339
  if (!answer.hit) console.log(answer.body); // error TS2339
  cache.on('packUpdated', (name: number) => console.log(name)); // error TS2345
  cache.setNetwork('offline'); // error TS2345
  await ferrit.open({ root: '/tmp/cache', appVersion: '1.0' }); // error TS2345
}
void misuse;
