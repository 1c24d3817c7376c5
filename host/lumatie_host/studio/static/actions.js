// What a person can have done, by a control or a key.

import {act} from "/static/api.js";
import {get, may, meant, notify, patch} from "./store.js";

/** Takes a picture with the stations that are meant. */
export async function shoot() {
    if (!canShoot() || get().busy) {
        return;
    }
    const {names, areAll} = meant();
    patch({busy: true});
    const answer = await act("shoot", areAll ? {} : {stations: names});
    patch({busy: false});
    for (const [name, {ok, error, advice}] of Object.entries(answer?.release.stations ?? {})) {
        if (!ok) {
            notify({text: error.startsWith("station ") ? error : `station ${name}: ${error}`, advice});
        }
    }
}

export function canShoot() {
    return may("shoot") && get().line === "on" && meant().names.length > 0;
}

/**
 * Gives the stations that are meant a tag.
 * @param {string} tag
 * @returns {Promise<boolean>} whether all have it
 */
export async function giveTag(tag) {
    const {names, areAll} = meant();
    const answer = await act("tag", areAll ? {tag} : {tag, stations: names});
    const troubles = Object.values(answer?.stations ?? {}).filter(Boolean);
    troubles.forEach((text) => notify({text}));
    return answer !== null && troubles.length === 0;
}

/** @param {string} name of a station that is chosen then, or is no more */
export function pick(name) {
    const {picked, stations} = get();
    const isThere = stations.some(({station, online}) => station === name && online);
    if (picked.includes(name)) {
        patch({picked: picked.filter((other) => other !== name)});
    } else if (isThere && may("shoot")) {
        patch({picked: [...picked, name]});
    }
}
