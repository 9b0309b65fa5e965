// The picture as a file.
import { $, el } from "./dom.js";
import { tell, warn } from "./toast.js";

/** Saves what is on the screen in the picture's own size. */
export function save({ size }) {
  if (!size) return warn("There is no picture to save.");
  const stamp = new Date().toISOString().replace(/[-:]/g, "").slice(0, 15);
  const canvas = el("canvas", size);
  const shown = $("canvas").hidden ? $("video") : $("canvas");
  canvas.getContext("2d").drawImage(shown, 0, 0, size.width, size.height);
  return canvas.toBlob((blob) => {
    const anchor = el("a", { href: URL.createObjectURL(blob), download: `nimbus-${stamp}.png` });
    anchor.click();
    setTimeout(() => URL.revokeObjectURL(anchor.href), 10_000);
    tell(`Saved ${anchor.download}.`);
  }, "image/png");
}
