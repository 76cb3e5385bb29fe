// What happened when in a long run, of which only what is near to trouble is worth reading.

const before_ms = 15000; // a player shows late what a list lacked
const after_ms = 5000;

export class Evidence {
    constructor() {
        Object.assign(this, {began: Date.now(), notes: [], troubles: []});
    }

    note(who, what, at = Date.now()) {
        this.notes.push({who, what, at});
    }

    trouble(who, what, at = Date.now()) {
        this.note(who, `TROUBLE: ${what}`, at);
        this.troubles.push(at);
    }

    // In order, whoever noted it when; empty where nothing went wrong.
    lines() {
        const is_near = ({at}) => this.troubles.some(trouble => at > trouble - before_ms && at < trouble + after_ms);
        return this.notes.filter(is_near).sort((a, b) => a.at - b.at).map(({who, what, at}) =>
            `${((at - this.began) / 1000).toFixed(3).padStart(9)} s  ${who.padEnd(12)}  ${what}`);
    }
}
