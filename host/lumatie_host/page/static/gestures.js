// Fingers, the mouse and the wheel on the stage: pan, pinch, a double tap for 100 %, a swipe.

/** @typedef {import("./pane.js").Pane} Pane */
/** @typedef {import("./view.js").View} View */

const SWIPE = 60; // CSS pixels
const DOUBLE = 350; // milliseconds between two taps
const NEAR = 30; // CSS pixels between them

/**
 * @param {HTMLElement} stage
 * @param {View} view
 * @param {(target: EventTarget | null) => Pane} paneAt
 * @param {(steps: number) => void} swiped to an older or newer picture
 */
export function listen(stage, view, paneAt, swiped) {
    /** @type {Map<number, {x: number, y: number}>} */
    const fingers = new Map();
    let begun = {x: 0, y: 0, time: 0};
    let tap = {x: 0, y: 0, time: 0};
    let pane = paneAt(null);
    let isGesture = false;

    stage.addEventListener("pointerdown", (event) => {
        if (event.button !== 0 || isWords(event.target)) {
            return;
        }
        fingers.set(event.pointerId, {x: event.clientX, y: event.clientY});
        if (fingers.size === 1) {
            pane = paneAt(event.target);
            begun = {x: event.clientX, y: event.clientY, time: event.timeStamp};
            isGesture = false;
        } else {
            isGesture = true;
        }
        stage.setPointerCapture(event.pointerId);
    });

    stage.addEventListener("pointermove", (event) => {
        const last = fingers.get(event.pointerId);
        if (!last) {
            return;
        }
        const before = measure([...fingers.values()]);
        fingers.set(event.pointerId, {x: event.clientX, y: event.clientY});
        const now = measure([...fingers.values()]);
        if (view.zoom || fingers.size > 1) {
            view.pan(now.x - before.x, now.y - before.y, pane.room, pane.size);
        }
        if (fingers.size === 2 && before.span > 0) {
            view.zoomBy(now.span / before.span, pane.room, pane.size, inPane(pane, now));
        }
    });

    /** @param {PointerEvent} event */
    const ended = (event) => {
        if (!fingers.delete(event.pointerId) || fingers.size || event.type !== "pointerup" || isGesture) {
            return;
        }
        const x = event.clientX - begun.x;
        const y = event.clientY - begun.y;
        if (!view.zoom && event.pointerType !== "mouse" && Math.abs(x) > SWIPE && Math.abs(x) > 2 * Math.abs(y)) {
            swiped(x > 0 ? -1 : 1);
            return;
        }
        if (Math.hypot(x, y) > 8) {
            return;
        }
        const isDouble =
            event.timeStamp - tap.time < DOUBLE &&
            Math.hypot(event.clientX - tap.x, event.clientY - tap.y) < NEAR;
        tap = {x: event.clientX, y: event.clientY, time: isDouble ? 0 : event.timeStamp};
        if (isDouble) {
            view.zoomTo(view.zoom ? 0 : 1, pane.room, pane.size, inPane(pane, tap));
        }
    };
    stage.addEventListener("pointerup", ended);
    stage.addEventListener("pointercancel", ended);

    stage.addEventListener(
        "wheel",
        (event) => {
            if (isWords(event.target)) {
                return;
            }
            event.preventDefault();
            const at = inPane(paneAt(event.target), {x: event.clientX, y: event.clientY});
            const {room, size} = paneAt(event.target);
            view.zoomBy(Math.exp(-event.deltaY * (event.ctrlKey ? 0.01 : 0.002)), room, size, at);
        },
        {passive: false},
    );
}

/** @param {EventTarget | null} target whether it is a part of what stands there without a picture */
function isWords(target) {
    return target instanceof Element && target.closest(".first") !== null;
}

/**
 * @param {Pane} pane
 * @param {{x: number, y: number}} at
 */
function inPane({element}, at) {
    const {left, top} = element.getBoundingClientRect();
    return {x: at.x - left, y: at.y - top};
}

/** @param {{x: number, y: number}[]} fingers their middle and how far apart they are */
function measure(fingers) {
    const [first, second = first] = fingers;
    return {
        x: (first.x + second.x) / 2,
        y: (first.y + second.y) / 2,
        span: Math.hypot(first.x - second.x, first.y - second.y),
    };
}
