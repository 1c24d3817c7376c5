// <lumatie-next>: the name that the next picture gets, and the tag in it. A scanner types into the
// field and sends Enter; the field keeps the focus, and the next code replaces the last.

import {act} from "../api.js";
import {attribute, h, show, text} from "../dom.js";
import {may, on} from "../store.js";

class LumatieNext extends HTMLElement {
    connectedCallback() {
        const name = h("output", {id: "next-name", "aria-live": "off"});
        const tag = h("input", {
            id: "tag",
            autocomplete: "off",
            autocapitalize: "off",
            spellcheck: "false",
            maxlength: 200,
            enterkeyhint: "done",
        });
        const form = h("form", {class: "field"}, h("label", {for: "tag", text: "Tag"}), tag);
        const told = h("output", {id: "tag-told", "aria-live": "off"});
        const plain = h("div", {class: "field"}, h("label", {for: "tag-told", text: "Tag"}), told);
        this.append(
            h("div", {class: "field"}, h("label", {for: "next-name", text: "Next name"}), name),
            form,
            plain,
        );
        form.addEventListener("submit", async (event) => {
            event.preventDefault();
            const wanted = tag.value.trim();
            tag.select();
            const answer = await act("tag", {tag: wanted});
            attribute(form, "data-unsaved", answer === null);
            if (answer) {
                text(name, answer.next_name || name.textContent);
            }
        });
        tag.addEventListener("input", () => attribute(form, "data-unsaved", true));
        on(["next_name"], (known) => {
            text(name, known.next_name || "\u2013");
            name.title = known.next_name;
        });
        on(["tag", "may"], (known) => {
            show(form, may("tag"));
            show(plain, !may("tag") && known.tag !== "");
            text(told, known.tag);
            if (document.activeElement !== tag) {
                tag.value = known.tag;
                attribute(form, "data-unsaved", false);
            }
        });
    }
}

customElements.define("lumatie-next", LumatieNext);
