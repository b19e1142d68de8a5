// A browser host against browser.d.ts in strict mode: a FerritCache is a PageCache, and what
// servePage resolves with tells which requests the packs answered.
import * as ferrit from 'ferritcore';
import { servePage, type PageLike } from 'ferritcore/browser';

export async function serve(page: PageLike, cache: ferrit.FerritCache): Promise<number> {
  const server = await servePage(page, cache, { inlineLimit: 65536 });
  const missed = server.served.filter((request) => !request.fromPack).map((request) => request.reason ?? '');
  console.log(server.stats.fromPack, server.stats.bytes, missed.join('; '), server.prefixes?.length ?? 'every URL');
  await server.detach();
  return server.stats.paused;
}
