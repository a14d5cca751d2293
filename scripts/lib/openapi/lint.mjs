// Checks a description of an HTTP interface: OpenAPI 3.1, and what every operation here has to say.
// usage: node lint.mjs FILE...
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";

const require = createRequire(import.meta.url);
const { createConfig, formatProblems, getTotals, lint } = require("@redocly/openapi-core");
const yaml = require("js-yaml");

const METHODS = ["get", "post", "put", "patch", "delete", "head", "options", "trace"];

const config = await createConfig({
  extends: ["recommended"],
  rules: {
    "operation-4xx-response": "off", // "default" is the problem document
    "no-server-example.com": "off",
    "no-path-trailing-slash": "error",
    "no-unused-components": "error",
    "operation-operationId": "error",
    "operation-tag-defined": "error",
    "tag-description": "error",
    "info-license-url": "off",
  },
});

/** Yields each node of a document with its path. */
function* walk(node, path = []) {
  if (node === null || typeof node !== "object") return;
  yield [node, path];
  for (const [key, value] of Object.entries(node)) yield* walk(value, [...path, key]);
}

/** What is wrong beyond the standard's rules. */
function judge(api) {
  const wrong = [];
  for (const [path, item] of Object.entries(api.paths)) {
    for (const [method, operation] of Object.entries(item)) {
      if (!METHODS.includes(method)) continue;
      const name = `${method.toUpperCase()} ${path}`;
      if (!["get", "post"].includes(method)) wrong.push(`${name}: neither GET nor POST`);
      if (!Array.isArray(operation["x-problems"])) wrong.push(`${name}: no x-problems`);
      if (operation.responses.default?.$ref !== "#/components/responses/Problem")
        wrong.push(`${name}: its errors are no problem documents`);
      if ((method === "post") !== Boolean(operation.requestBody?.$ref ?? operation.requestBody?.required))
        wrong.push(`${name}: POST has to have a body, and nothing else`);
    }
  }
  for (const [node, path] of walk(api.components.schemas)) {
    if (node.type === "object" && node.additionalProperties === undefined)
      wrong.push(`${path.join("/")}: an object that may hold anything`);
    for (const key of Array.isArray(node.required) ? node.required : [])
      if (!(key in (node.properties ?? {}))) wrong.push(`${path.join("/")}: required, but not there: ${key}`);
  }
  return wrong;
}

let failed = false;
for (const file of process.argv.slice(2)) {
  const problems = await lint({ ref: file, config });
  formatProblems(problems, { format: "stylish", totals: getTotals(problems), maxProblems: 100 });
  const api = yaml.load(readFileSync(file, "utf8"));
  const wrong = judge(api);
  for (const line of wrong) console.log(`${file}: ${line}`);
  const planned = [...walk(api)].filter(([node]) => node["x-planned"]).map(([, path]) => path.join(" "));
  const operations = Object.values(api.paths).flatMap((item) => Object.keys(item)).length;
  console.log(`${file}: ${operations} operations, ${planned.length} planned, ${problems.length + wrong.length} wrong`);
  for (const line of planned) console.log(`planned: ${line}`);
  failed ||= problems.length + wrong.length > 0;
}
process.exit(failed ? 1 : 0);
