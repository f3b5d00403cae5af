// isoxml_peer.js: loads and saves one task data directory with the npm package "isoxml", used
// as a black-box peer by bench_files (through run_isoxml_peer.sh). Only the package's public
// API is used: ISOXMLManager.parseISOXMLFile() and saveISOXML().
//
// Usage: node isoxml_peer.js NODE_PREFIX DIR OUTDIR MODE REPS [ZIP]
//   MODE time: REPS loads, the first ISOXML_SAVE_REPS of them (default 1, a save takes minutes)
//              followed by a save; prints the best and median seconds of each, wall and CPU
//              (the whole process, garbage collector threads included).
//   MODE peak: one load and one save in a fresh process; prints the peak resident set size
//              (VmHWM, kB) after each and the time of that first load.
//   MODE idle: the package loaded, nothing parsed; prints the peak resident set size.
//   ZIP: a stored zip of the directory, given when the directory holds more than TASKDATA.XML
//        (the package reads a whole directory only from a zip).
// Output: key=value words on stdout.
'use strict';
const fs = require('fs');
const path = require('path');

const [prefix, dir, outdir, mode, repsArg, zipPath] = process.argv.slice(2);
const { ISOXMLManager } = require(path.join(prefix, 'node_modules', 'isoxml'));
const reps = Math.max(1, parseInt(repsArg || '1', 10));
const saveReps = Math.max(1, parseInt(process.env.ISOXML_SAVE_REPS || '1', 10));

function seconds(t0) {
    return Number(process.hrtime.bigint() - t0) / 1e9;
}

function cpuSeconds(c0) {
    const c = process.cpuUsage(c0);
    return (c.user + c.system) / 1e6;
}

function readInput() {
    if (zipPath)
        return { data: new Uint8Array(fs.readFileSync(zipPath)), type: 'application/zip' };
    const name = fs.readdirSync(dir).find(f => f.toUpperCase() === 'TASKDATA.XML');
    return { data: fs.readFileSync(path.join(dir, name), 'utf8'), type: 'text/xml' };
}

// Reading the file is part of a load, as it is on our side.
async function load() {
    const t0 = process.hrtime.bigint();
    const c0 = process.cpuUsage();
    const input = readInput();
    const manager = new ISOXMLManager();
    await manager.parseISOXMLFile(input.data, input.type);
    return { manager, s: seconds(t0), cpu: cpuSeconds(c0) };
}

// Writing the file is part of a save, as it is on our side.
async function save(manager) {
    const t0 = process.hrtime.bigint();
    const c0 = process.cpuUsage();
    const data = await manager.saveISOXML();
    fs.mkdirSync(outdir, { recursive: true });
    fs.writeFileSync(path.join(outdir, 'TASKDATA.zip'), data);
    return { bytes: data.length, s: seconds(t0), cpu: cpuSeconds(c0) };
}

// VmHWM, as the C++ side reports it (getrusage's figure would include a big parent's size).
function maxRssKb() {
    const m = /VmHWM:\s*(\d+)\s*kB/.exec(fs.readFileSync('/proc/self/status', 'utf8'));
    return m ? Number(m[1]) : process.resourceUsage().maxRSS;
}

function best(v) {
    return Math.min(...v);
}

function median(v) {
    const s = [...v].sort((a, b) => a - b);
    const n = s.length;
    return n % 2 ? s[(n - 1) / 2] : (s[n / 2 - 1] + s[n / 2]) / 2;
}

async function main() {
    if (mode === 'idle') {
        console.log(`idle_kb=${maxRssKb()}`);
        return;
    }
    if (mode === 'peak') {
        const l = await load();
        const peakLoad = maxRssKb();
        const s = await save(l.manager);
        console.log(`first_load_cpu_s=${l.cpu.toFixed(3)} first_load_s=${l.s.toFixed(3)} ` +
            `peak_load_kb=${peakLoad} peak_kb=${maxRssKb()} zip_bytes=${s.bytes}`);
        return;
    }
    const loads = [], saves = [], loadsCpu = [], savesCpu = [];
    let info = '';
    for (let i = 0; i < reps; ++i) {
        if (global.gc)
            global.gc();
        const l = await load();
        loads.push(l.s);
        loadsCpu.push(l.cpu);
        if (i >= saveReps)
            continue;
        const s = await save(l.manager);
        saves.push(s.s);
        savesCpu.push(s.cpu);
        if (i === 0) {
            const root = l.manager.rootElement.attributes;
            const count = key => (root[key] || []).length;
            info = `partfields=${count('Partfield')} tasks=${count('Task')} ` +
                `warnings=${l.manager.getWarnings().length} zip_bytes=${s.bytes}`;
        }
    }
    const f = v => v.toFixed(3);
    console.log(`load_s=${f(best(loads))} load_cpu_s=${f(best(loadsCpu))} load_median_s=${f(median(loads))} ` +
        `save_s=${f(best(saves))} save_cpu_s=${f(best(savesCpu))} save_median_s=${f(median(saves))} ` +
        `load_runs=${loads.length} save_runs=${saves.length} ${info}`);
}

main().catch(e => {
    console.error(`isoxml peer failed: ${e && e.stack ? e.stack : e}`);
    process.exit(1);
});
