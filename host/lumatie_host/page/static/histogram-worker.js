// Counts a preview's values and marks where they clip, beside the page's own thread.

const WHITE = 253; // a JPEG does not keep 255 exactly
const BLACK = 2;
const WHITE_MARK = 0xff2020ff; // red; bytes are alpha, blue, green, red
const BLACK_MARK = 0xffff6020; // blue

/**
 * @typedef {object} Job
 * @property {number} id
 * @property {boolean} isMain which pane asks
 * @property {string} url of the preview
 * @property {boolean} marks whether marks are wanted
 */

/**
 * @typedef {object} Counted
 * @property {number} id
 * @property {boolean} isMain
 * @property {Uint32Array} counts luminance, red, green, blue: 256 each
 * @property {[number, number]} clipped shares of the picture: white, black
 * @property {ImageBitmap | null} marks
 */

self.onmessage = async (/** @type {MessageEvent<Job>} */ event) => {
    const {id, isMain, url, marks} = event.data;
    try {
        const response = await fetch(url);
        if (!response.ok) {
            return;
        }
        const bitmap = await createImageBitmap(await response.blob(), {colorSpaceConversion: "none"});
        const counted = {id, isMain, ...count(bitmap, marks)};
        self.postMessage(counted, {transfer: counted.marks ? [counted.marks] : []});
    } catch {
        self.postMessage({id, isMain, counts: null}); // no preview, no histogram
    }
};

/**
 * @param {ImageBitmap} bitmap
 * @param {boolean} hasMarks
 */
function count(bitmap, hasMarks) {
    const {width, height} = bitmap;
    const canvas = new OffscreenCanvas(width, height);
    const context = /** @type {OffscreenCanvasRenderingContext2D} */ (
        canvas.getContext("2d", {willReadFrequently: true})
    );
    context.drawImage(bitmap, 0, 0);
    bitmap.close();
    const image = context.getImageData(0, 0, width, height);
    const bytes = image.data;
    const counts = new Uint32Array(1024);
    const marks = new Uint32Array(hasMarks ? width * height : 0);
    let white = 0;
    let black = 0;
    for (let i = 0, pixel = 0; i < bytes.length; i += 4, pixel += 1) {
        const red = bytes[i];
        const green = bytes[i + 1];
        const blue = bytes[i + 2];
        counts[(red * 54 + green * 183 + blue * 19) >> 8] += 1;
        counts[256 + red] += 1;
        counts[512 + green] += 1;
        counts[768 + blue] += 1;
        if (red >= WHITE || green >= WHITE || blue >= WHITE) {
            white += 1;
            marks[pixel] = WHITE_MARK;
        } else if (red <= BLACK && green <= BLACK && blue <= BLACK) {
            black += 1;
            marks[pixel] = BLACK_MARK;
        }
    }
    const all = width * height;
    let drawn = null;
    if (hasMarks) {
        context.putImageData(new ImageData(new Uint8ClampedArray(marks.buffer), width, height), 0, 0);
        drawn = canvas.transferToImageBitmap();
    }
    return {counts, clipped: [white / all, black / all], marks: drawn};
}
