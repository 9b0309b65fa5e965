// The few fields of ISO/IEC 14496-12 that a player needs to know which picture is on the screen.

/** Where a box's content begins, by its four letters; -1 when it is not there. The pieces are small
 *  and made by the board, so the letters are looked for, not walked to. */
function contentOf(bytes, letters) {
  const [a, b, c, d] = [...letters].map((letter) => letter.charCodeAt(0));
  const end = Math.min(bytes.length - 3, 1024);
  for (let i = 4; i < end; ++i) {
    if (bytes[i] === a && bytes[i + 1] === b && bytes[i + 2] === c && bytes[i + 3] === d) {
      return i + 4;
    }
  }
  return -1;
}

function viewOf(bytes, at, length) {
  if (at < 0 || at + length > bytes.length) return null;
  return new DataView(bytes.buffer, bytes.byteOffset + at, length);
}

/** Units a second of the track's times, from an initialisation segment; null when it says none. */
export function timescaleOf(bytes) {
  const at = contentOf(bytes, "mdhd");
  const view = viewOf(bytes, at, 24);
  if (!view) return null;
  return view.getUint8(0) === 1 ? view.getUint32(20) : view.getUint32(12);
}

/** The decode time of a fragment, in those units; null when it says none. */
export function decodeTimeOf(bytes) {
  const view = viewOf(bytes, contentOf(bytes, "tfdt"), 8);
  if (!view) return null;
  if (view.getUint8(0) !== 1) return view.getUint32(4);
  const long = viewOf(bytes, contentOf(bytes, "tfdt"), 12);
  return long ? Number(long.getBigUint64(4)) : null;
}
