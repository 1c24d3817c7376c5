// Puts the wall together. What few need is loaded when they ask for it.

import "/static/elements/status.js";
import "/static/elements/notices.js";
import "./elements/stations.js";
import "./elements/desk.js";
import * as head from "/static/head.js";
import * as keys from "./keys.js";
import * as live from "./live.js";
import {on} from "./store.js";

/** @typedef {import("./elements/stations.js").WallStations} WallStations */

on(["studio"], ({studio}) => (document.title = studio ? `${studio} \u2013 Lumatie` : "Lumatie"));
const wall = /** @type {WallStations} */ (document.querySelector("wall-stations"));
keys.listen(wall, head.start("wall-help", () => import("./elements/help.js")));
live.start();
