// What things are, for the type checker: no page loads this file.

/**
 * A record of the ledger; which fields it has depends on its kind.
 * @typedef {object} LedgerRecord
 * @property {number} n
 * @property {string} kind
 * @property {string} time
 * @property {string} [file]
 * @property {number} [rating]
 * @property {string} [label]
 * @property {string} [name]
 * @property {string} [text]
 * @property {string[]} [allowed]
 * @property {boolean} [settable]
 * @property {string} [what]
 * @property {string} [advice]
 * @property {string} [reason]
 */

/**
 * @typedef {object} Picture
 * @property {number} n
 * @property {string} kind
 * @property {string} time
 * @property {string} file
 * @property {number} size
 * @property {string} [sha256]
 * @property {string} format "JPEG", "RAW" or "OTHER"
 * @property {number} shot
 * @property {string} [session]
 * @property {string} origin
 * @property {Record<string, string>} settings
 * @property {number} [width]
 * @property {number} [height]
 */

/**
 * @typedef {object} Setting
 * @property {string} name
 * @property {string} text
 * @property {string[]} allowed
 * @property {boolean} settable
 * @property {{key: number, text: string}[]} [choices]
 */

/** @typedef {{reason: string, text: string, advice: string, asks?: string}} Trouble */

/**
 * @typedef {object} Sequence
 * @property {string} kind
 * @property {boolean} running
 * @property {number} frame
 * @property {number} of
 * @property {number | null} next seconds
 * @property {Trouble | null} error
 * @property {boolean} stopped
 */

/**
 * What the server tells of itself and of the camera.
 * @typedef {object} State
 * @property {number} n the last record's number
 * @property {string} role "operator" or "viewer"
 * @property {string[]} may
 * @property {string} camera
 * @property {string} maker
 * @property {string} connection
 * @property {string} words
 * @property {string} advice
 * @property {Trouble | null} error
 * @property {string | null} folder
 * @property {string} job
 * @property {string} station
 * @property {string} tag
 * @property {string} next_name
 * @property {Setting[]} settings
 * @property {Picture | null} picture
 * @property {number} pictures
 * @property {number} shots
 * @property {Record<string, {rating: number, label: string}>} ratings
 * @property {LedgerRecord[]} alarms
 * @property {{to: string, waiting: number, lag: number} | null} copy
 * @property {{free: number, pictures_left: number | null} | null} disk
 * @property {Sequence | null} sequence
 * @property {number} viewers
 * @property {Record<string, [string, string]> | null} offer
 * @property {string[]} absent
 */

/**
 * What only this page knows.
 * @typedef {object} Local
 * @property {"entering" | "on" | "off" | "refused"} line whether the server is heard
 * @property {boolean} follow
 * @property {boolean} armed
 * @property {boolean} busy a picture is being taken
 * @property {boolean} compare
 * @property {boolean} clipping
 * @property {string} chosen key of the shot that is shown
 * @property {string} pinned key of the shot beside it
 * @property {string} setting name of the setting that arrow keys change
 * @property {Uint32Array | null} histogram luminance, red, green, blue: 256 each
 * @property {[number, number] | null} clipped shares of the picture: white, black
 */

/** @typedef {State & Local} Known */

/**
 * One line of news for the person at this page; `lumatie-notices` shows it.
 * @typedef {object} Notice
 * @property {string} text
 * @property {string} [advice]
 */

export {};
