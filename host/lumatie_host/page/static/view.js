// Which part of a picture is looked at. One view serves all panes and all pictures, so the place
// is kept from one to the next.

const CLOSEST = 8; // device pixels for one of the picture

/** @typedef {{left: number, top: number, width: number, height: number}} Room a pane, CSS pixels */
/** @typedef {{width: number, height: number}} Size of a picture, in its pixels */

/** Tells "change". */
export class View extends EventTarget {
    zoom = 0; // device pixels for one of the picture; 0: the whole picture fits
    x = 0.5; // the picture's point in the middle of the pane, parts of its size
    y = 0.5;

    /**
     * Where the picture's upper left corner is in its room, and how big one of its pixels is, in
     * CSS pixels. At 100 % a pixel of the picture is one of the screen, exactly.
     * @param {Room} room
     * @param {Size} size
     */
    place(room, size) {
        const scale = this.#scale(room, size);
        return {
            scale,
            left: along(this.x, room.left, room.width, size.width * scale),
            top: along(this.y, room.top, room.height, size.height * scale),
        };
    }

    /**
     * @param {number} zoom
     * @param {Room} [room]
     * @param {Size} [size]
     * @param {{x: number, y: number}} [at] stays where it is in the room, CSS pixels
     */
    zoomTo(zoom, room, size, at) {
        const place = room && size && this.place(room, size);
        this.zoom = Math.min(zoom, CLOSEST);
        if (place && at) {
            const scale = this.#scale(room, size);
            const x = (at.x - place.left) / place.scale;
            const y = (at.y - place.top) / place.scale;
            this.x = (x + (room.width / 2 - at.x) / scale) / size.width;
            this.y = (y + (room.height / 2 - at.y) / scale) / size.height;
        }
        if (room && size) {
            this.#bound(room, size);
        }
        this.dispatchEvent(new Event("change"));
    }

    /**
     * Nearer or farther; not farther than the whole picture.
     * @param {number} factor
     * @param {Room} room
     * @param {Size} size
     * @param {{x: number, y: number}} at
     */
    zoomBy(factor, room, size, at) {
        const ratio = devicePixelRatio;
        const next = this.#scale(room, size) * ratio * factor;
        this.zoomTo(next <= fit(room, size) * ratio * 1.001 ? 0 : next, room, size, at);
    }

    /**
     * @param {number} x CSS pixels that the picture is pushed to the right
     * @param {number} y
     * @param {Room} room
     * @param {Size} size
     */
    pan(x, y, room, size) {
        const scale = this.#scale(room, size);
        this.x -= x / scale / size.width;
        this.y -= y / scale / size.height;
        this.#bound(room, size);
        this.dispatchEvent(new Event("change"));
    }

    /**
     * @param {Room} room
     * @param {Size} size
     */
    #scale(room, size) {
        return this.zoom ? this.zoom / devicePixelRatio : fit(room, size);
    }

    /**
     * @param {Room} room
     * @param {Size} size
     */
    #bound(room, size) {
        const scale = this.#scale(room, size);
        if (this.zoom) {
            this.x = within(this.x, room.width / 2 / (size.width * scale));
            this.y = within(this.y, room.height / 2 / (size.height * scale));
        }
    }
}

/**
 * @param {Room} room
 * @param {Size} size
 */
function fit(room, size) {
    return Math.min(room.width / size.width, room.height / size.height);
}

/**
 * @param {number} at
 * @param {number} margin
 */
function within(at, margin) {
    return margin >= 0.5 ? 0.5 : Math.min(Math.max(at, margin), 1 - margin);
}

/**
 * The picture's beginning along one axis, on a pixel of the screen.
 * @param {number} at
 * @param {number} offset of the room
 * @param {number} room
 * @param {number} length of the picture
 */
function along(at, offset, room, length) {
    const start =
        length <= room ? (room - length) / 2 : Math.min(0, Math.max(room - length, room / 2 - at * length));
    return Math.round((offset + start) * devicePixelRatio) / devicePixelRatio - offset;
}
