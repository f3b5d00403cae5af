// Decodes every time log of a zipped task data directory with the npm package "isoxml", through
// its public API only (ISOXMLManager.parseISOXMLFile, the tasks' TimeLog entities and their
// parseBinaryFile()). Prints "records=N parse_s=S decode_s=S total_s=S", each figure the best of
// REPS runs (each run parses the zip and decodes with a fresh manager).
//
// Usage: node isoxml_peer.js PREFIX ZIP [REPS]   (PREFIX holds node_modules/isoxml)
'use strict'
const fs = require('fs')
const path = require('path')

const [prefix, zipPath, repsArg] = process.argv.slice(2)
const isoxml = require(path.join(prefix, 'node_modules', 'isoxml'))
const reps = Math.max(1, parseInt(repsArg || '3', 10))
const zip = new Uint8Array(fs.readFileSync(zipPath))

async function once () {
  const t0 = process.hrtime.bigint()
  const manager = new isoxml.ISOXMLManager()
  await manager.parseISOXMLFile(zip, 'application/zip')
  const t1 = process.hrtime.bigint()
  let records = 0
  let values = 0
  for (const task of manager.rootElement.attributes.Task || []) {
    for (const timeLog of task.attributes.TimeLog || []) {
      const info = timeLog.parseBinaryFile()
      if (!info || !info.timeLogs) continue
      records += info.timeLogs.length
      // Touch what was decoded so that no lazy work is left out.
      for (const r of info.timeLogs) values += Object.keys(r.values).length
    }
  }
  const t2 = process.hrtime.bigint()
  return { records, values, parse: Number(t1 - t0) / 1e9, decode: Number(t2 - t1) / 1e9, warnings: manager.getWarnings().length }
}

async function main () {
  let last = null
  let parse = Infinity
  let decode = Infinity
  let total = Infinity
  for (let i = 0; i < reps; i++) {
    last = await once()
    parse = Math.min(parse, last.parse)
    decode = Math.min(decode, last.decode)
    total = Math.min(total, last.parse + last.decode)
    if (global.gc) global.gc()
  }
  console.log(`records=${last.records} values=${last.values} parse_s=${parse.toFixed(4)} ` +
              `decode_s=${decode.toFixed(4)} total_s=${total.toFixed(4)} warnings=${last.warnings}`)
}

main().catch(e => { console.error(e && e.stack ? e.stack : e); process.exit(1) })
