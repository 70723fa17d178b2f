// What the types allow and what they do not. Only compiled; the errors that are expected must be
// there.
import { IndexSession, Match, MatchLevel, MatchSession, Signature, TesseraError, binarySignatures,
         signatures, signaturesAsync } from '../index';

export async function use(home: string): Promise<void> {
  const list: Signature[] = signatures('text', { platform: 'server', maxContentSize: 1 << 20 });
  const hex: string = list[0].toString('hex');
  {
    using index = new IndexSession(home);
    index.add(1, list);
    await index.addAsync(2, [Buffer.from(hex, 'hex'), new Uint8Array(8)]);
    index.delete([1, 2]);
    await index.deleteAsync(3);
    index.setMaxTableSize(1 << 30);
  }
  await using session = await MatchSession.open(home);
  const found: Match[] = await session.matchAsync(await signaturesAsync(Buffer.from('text')));
  const strong: boolean = found.some((match) => match.level === MatchLevel.STRONG);
  try {
    session.match(binarySignatures(new Uint8Array(5)), { graded: strong });
  } catch (error) {
    if (error instanceof TesseraError && error.code === 'TESSERA_CLOSED') console.error(error.status);
  }
}

// @ts-expect-error a string is no content
binarySignatures('text');
// @ts-expect-error there is no such platform
signatures('text', { platform: 'desktop' });
// @ts-expect-error a home is needed
new IndexSession();
// @ts-expect-error results are not to be changed
MatchLevel.STRONG = 1;
export function misuse(session: MatchSession): void {
  // @ts-expect-error signatures, not a text
  session.match('text');
  // @ts-expect-error only an index is added to
  session.add(1, []);
}
