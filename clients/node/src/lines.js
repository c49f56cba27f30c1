// Splits a byte stream into lines.
//
// A line ends at the byte 0x0A and nowhere else: U+2028 and U+2029 are legal inside JSON strings. Only complete lines are decoded, so
// a character that two reads split is kept whole.

const newline = 0x0a;

export class LineReader {
  #pieces = /** @type {Uint8Array[]} */ ([]);
  #length = 0;
  #skipping = false;

  /**
   * @param {(line: string) => void} onLine called for each line, without its line feed, during `push`
   * @param {{maxBytes?: number, onTooLong?: () => void}} [options] a line of more than `maxBytes` bytes is skipped to its end and
   *     reported once to `onTooLong`; this bounds memory
   */
  constructor(onLine, options = {}) {
    const {maxBytes = 16 * 1024 * 1024, onTooLong = () => {}} = options;
    this.onLine = onLine;
    this.maxBytes = maxBytes;
    this.onTooLong = onTooLong;
  }

  /** @param {Uint8Array} bytes */
  push(bytes) {
    let start = 0;
    for (;;) {
      const end = bytes.indexOf(newline, start);
      if (end < 0) break;
      this.#add(bytes.subarray(start, end));
      this.#finish();
      start = end + 1;
    }
    if (start < bytes.length) this.#add(bytes.subarray(start));
  }

  /** The bytes of an unfinished line that are held. */
  get pendingBytes() {
    return this.#length;
  }

  /** @param {Uint8Array} piece */
  #add(piece) {
    if (this.#skipping || piece.length === 0) return;
    if (this.#length + piece.length > this.maxBytes) {
      this.#skipping = true;
      this.#pieces = [];
      this.#length = 0;
      this.onTooLong();
      return;
    }
    this.#pieces.push(piece);
    this.#length += piece.length;
  }

  #finish() {
    if (this.#skipping) {
      this.#skipping = false;
      return;
    }
    const bytes = this.#pieces.length === 1 ? this.#pieces[0] : Buffer.concat(this.#pieces);
    this.#pieces = [];
    this.#length = 0;
    const line = Buffer.from(bytes.buffer, bytes.byteOffset, bytes.length).toString('utf8');
    if (line.trim() !== '') this.onLine(line);
  }
}
