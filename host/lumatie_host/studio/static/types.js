// What things are, for the type checker: no page loads this file.

/**
 * A station, as the wall shows it.
 * @typedef {object} Tile
 * @property {string} station
 * @property {boolean} online
 * @property {string} connection
 * @property {string} words
 * @property {string} advice
 * @property {string} camera
 * @property {string} maker
 * @property {string} tag
 * @property {Record<string, string>} settings
 * @property {{n: number, file?: string, sha256?: string} | null} picture
 * @property {number} asked
 * @property {number} have
 * @property {number} missing
 */

/**
 * What came of a request for pictures.
 * @typedef {object} Release
 * @property {number} asked
 * @property {number} done
 * @property {number | null} seconds
 * @property {number} uncertainty
 * @property {string} words
 * @property {Record<string, {ok: boolean, after: number | null, error: string, advice: string}>} stations
 */

/**
 * @typedef {object} Wall
 * @property {string} studio
 * @property {boolean} broker
 * @property {number} to_collect
 * @property {number} collected
 * @property {boolean} shooting
 * @property {Release | null} release
 * @property {Tile[]} stations
 * @property {string[]} picked the stations that a person has chosen
 */

/** @typedef {import("/static/types.js").Known & Wall} Known */

export {};
