// Every line marked with an error code must fail to compile with that code: servePage needs a
// page and a cache, and a served request's reason may be absent.
import * as ferrit from 'ferritcore';
import { servePage, type PageLike } from 'ferritcore/browser';

export async function misuse(page: PageLike, cache: ferrit.FerritCache): Promise<void> {
  await servePage(cache, page); // error TS2345
  const server = await servePage(page, cache, { inlineLimit: '64k' }); // error TS2322
  const reason: string = server.served[0].reason; // error TS2322
  server.stats = server.stats; // error TS2540
  void reason;
}
