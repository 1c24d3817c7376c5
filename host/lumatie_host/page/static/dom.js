// Small helpers to make elements and to change only what is different.

/**
 * Makes an element. `on…` are listeners, `text` is its text, `true` and `false` set and omit an
 * attribute.
 * @template {keyof HTMLElementTagNameMap} K
 * @param {K} tag
 * @param {Record<string, any>} [attributes]
 * @param {...(Node | string | null)} children
 * @returns {HTMLElementTagNameMap[K]}
 */
export function h(tag, attributes = {}, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (name === "text") {
            element.textContent = value;
        } else if (name.startsWith("on")) {
            element.addEventListener(name.slice(2), value);
        } else {
            attribute(element, name, value);
        }
    }
    element.append(...children.filter((child) => child !== null));
    return element;
}

/**
 * A drawing from icons.svg, for the eyes only.
 * @param {string} name
 * @returns {SVGElement}
 */
export function icon(name) {
    const space = "http://www.w3.org/2000/svg";
    const svg = document.createElementNS(space, "svg");
    const use = document.createElementNS(space, "use");
    use.setAttribute("href", "/static/icons.svg#" + name);
    svg.setAttribute("class", "icon");
    svg.setAttribute("aria-hidden", "true");
    svg.append(use);
    return svg;
}

/**
 * @param {Element} element
 * @param {string} name
 * @param {string | number | boolean | null | undefined} value null and false remove it
 */
export function attribute(element, name, value) {
    if (value === null || value === undefined || value === false) {
        element.removeAttribute(name);
    } else if (element.getAttribute(name) !== String(value)) {
        element.setAttribute(name, value === true ? "" : String(value));
    }
}

/**
 * @param {Node} node
 * @param {string} value
 */
export function text(node, value) {
    if (node.textContent !== value) {
        node.textContent = value;
    }
}

/**
 * @param {HTMLElement} element
 * @param {boolean} isShown
 */
export function show(element, isShown) {
    if (element.hidden === isShown) {
        element.hidden = !isShown;
    }
}

/**
 * A button that stays pressed.
 * @param {string} name
 * @param {string} drawing
 * @param {string} key that does the same
 * @param {() => void} pressed
 * @returns {HTMLButtonElement}
 */
export function toggle(name, drawing, key, pressed) {
    const title = key ? `${name} (${key})` : name;
    return h(
        "button",
        {type: "button", class: "toggle", "aria-pressed": "false", title, onclick: pressed},
        icon(drawing),
        h("span", {text: name}),
    );
}

/**
 * Whether keys belong to what is focused, because a person types or chooses there.
 * @param {EventTarget | null} target
 * @returns {boolean}
 */
function takesText(target) {
    return (
        target instanceof Element &&
        target.closest("input:not([type=range],[type=checkbox]), textarea, [contenteditable]") !== null
    );
}

/** @type {Record<string, [number, number]>} the keys of a direction: to the right, down */
export const ARROWS = {ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1]};

/**
 * Whether a key is for the page, and not for a field, a dialog or the browser.
 * @param {KeyboardEvent} event
 */
export function isForPage({target, ctrlKey, metaKey, altKey, isComposing}) {
    const isOther = ctrlKey || metaKey || altKey || isComposing;
    return !isOther && !takesText(target) && !document.querySelector("dialog[open]");
}
