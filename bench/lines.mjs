// Processes the same input in a host's own language: lines, JSON, Base64. Prints its figures in the format
// of the benchmarks.
import { createInterface } from "node:readline";

let start;
let lines = 0;
let bytes = 0;
process.stdin.once("readable", () => (start = performance.now()));
const input = createInterface({ input: process.stdin, crlfDelay: Infinity });
input.on("line", (line) => {
  const command = JSON.parse(line);
  if (command.type !== "audio") return;
  bytes += Buffer.from(command.pcmBase64, "base64").length;
  lines += 1;
});
input.on("close", () => {
  console.log(`seconds ${(performance.now() - start) / 1000}`);
  console.log(`lines ${lines}`);
  console.log(`bytes ${bytes}`);
});
