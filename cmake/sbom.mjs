// Writes and validates a software bill of materials: CycloneDX 1.5 as JSON, reproducible.
//
// usage: node sbom.mjs NODE_MODULES NAME VERSION PACKAGE_SHA256 OUTPUT < COMPONENTS
//
// COMPONENTS is an array of {name, version, licence, where}; licence is an SPDX expression.
import { readFileSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { pathToFileURL } from "node:url";

const [modules, name, version, sha256, output] = process.argv.slice(2);
const CDX = createRequire(pathToFileURL(`${modules}/`))("@cyclonedx/cyclonedx-library");
const { Enums, Models, Serialize, Spec, Validation } = CDX;

const product = new Models.Component(Enums.ComponentType.Application, name, {
  version,
  bomRef: name,
  hashes: new Models.HashDictionary([[Enums.HashAlgorithm["SHA-256"], sha256]]),
});
const bom = new Models.Bom({ metadata: new Models.Metadata({ component: product }) });
for (const row of JSON.parse(readFileSync(0, "utf8"))) {
  const component = new Models.Component(Enums.ComponentType.Library, row.name, {
    version: row.version,
    bomRef: row.name,
    description: row.where,
    licenses: new Models.LicenseRepository([new Models.LicenseExpression(row.licence)]),
  });
  bom.components.add(component);
  product.dependencies.add(component.bomRef);
}

const text = new Serialize.JsonSerializer(new Serialize.JSON.Normalize.Factory(Spec.Spec1dot5))
  .serialize(bom, { sortLists: true, space: 2 });
const errors = await new Validation.JsonStrictValidator(Spec.Version.v1dot5).validate(text);
if (errors !== null) {
  console.error(`sbom: ${JSON.stringify(errors, null, 2)}`);
  process.exit(1);
}
writeFileSync(output, text + "\n");
