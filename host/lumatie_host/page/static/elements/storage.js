// <lumatie-storage>: how far the second copy is behind, and how many pictures the disk has room for.

import {attribute, h, show, text} from "../dom.js";
import {on} from "../store.js";

const FEW = 100; // pictures
const UNITS = ["bytes", "kB", "MB", "GB", "TB"];

class LumatieStorage extends HTMLElement {
    connectedCallback() {
        const copy = h("output", {id: "copy", "aria-live": "off"});
        const disk = h("output", {id: "disk", "aria-live": "off"});
        const copyRow = h("div", {class: "field"}, h("label", {for: "copy", text: "Copy"}), copy);
        const diskRow = h("div", {class: "field"}, h("label", {for: "disk", text: "Disk"}), disk);
        const folder = h("output", {id: "folder", "aria-live": "off"});
        const folderRow = h("div", {class: "field"}, h("label", {for: "folder", text: "Folder"}), folder);
        this.append(folderRow, copyRow, diskRow);
        on(["folder"], (known) => {
            show(folderRow, Boolean(known.folder));
            text(folder, (known.folder ?? "").replace(/[/\\]+$/, "").replace(/^.*[/\\]/, ""));
            folder.title = known.folder ?? "";
        });
        on(["copy", "disk"], (known) => {
            show(copyRow, known.copy !== null);
            show(diskRow, known.disk !== null);
            if (known.copy) {
                const {waiting, lag, to} = known.copy;
                const behind = lag >= 1 ? `, ${Math.round(lag)} s behind` : "";
                text(copy, waiting ? `${waiting} to copy${behind}` : "All copied");
                copy.title = to;
            }
            if (known.disk) {
                const {free, pictures_left: left} = known.disk;
                const room = left === null ? "" : `, about ${left.toLocaleString()} pictures`;
                text(disk, `${sizeOf(free)} free${room}`);
                attribute(diskRow, "data-few", left !== null && left < FEW);
            }
        });
    }
}

/** @param {number} bytes */
function sizeOf(bytes) {
    let unit = 0;
    for (; bytes >= 1000 && unit < UNITS.length - 1; unit += 1) {
        bytes /= 1000;
    }
    return `${bytes >= 100 || !unit ? Math.round(bytes) : bytes.toFixed(1)} ${UNITS[unit]}`;
}

customElements.define("lumatie-storage", LumatieStorage);
