// SPDX-License-Identifier: LGPL-3.0-or-later
// Bundles the page into dist/, the folder that Cockpit serves. The same sources give the same bytes.
import { copyFile, mkdir, readdir, readFile, rm, writeFile } from 'node:fs/promises';
import { build } from 'esbuild';

// The style sheet's fonts are left out: the page takes those of the machine.
const withoutFonts = {
  name: 'without-fonts',
  setup(bundler) {
    bundler.onLoad({ filter: /styles\/base\.css$/ }, async ({ path }) => ({
      contents: (await readFile(path, 'utf8')).replace(/@font-face\s*\{[^}]*\}/g, ''),
      loader: 'css',
    }));
  },
};

// The modules that have a part in the bundle, by their folders.
function modulesIn({ outputs }) {
  const parts = Object.values(outputs).flatMap(({ inputs }) => Object.entries(inputs));
  const folders = parts
    .filter(([, { bytesInOutput }]) => bytesInOutput > 0)
    .map(([path]) => /.*node_modules\/(@[^/]+\/)?[^/]+/.exec(path)?.[0]);
  return [...new Set(folders)].filter(Boolean).sort();
}

async function licenceOf(folder) {
  const { name, version, license } = JSON.parse(await readFile(`${folder}/package.json`, 'utf8'));
  const file = (await readdir(folder)).find((each) => /^licen[cs]e/i.test(each));
  if (file === undefined) throw new Error(`${name} has no file with its licence`);
  return `${name} ${version}: ${license}\n\n${(await readFile(`${folder}/${file}`, 'utf8')).trim()}\n`;
}

await rm('dist', { recursive: true, force: true });
await mkdir('dist');
const { metafile } = await build({
  metafile: true,
  entryPoints: { index: 'src/index.tsx' },
  outdir: 'dist',
  bundle: true,
  minify: true,
  target: 'es2021',
  legalComments: 'none', // LICENSES.txt has the licences whole
  loader: { '.svg': 'dataurl', '.jpg': 'dataurl', '.png': 'dataurl', '.woff2': 'empty', '.woff': 'empty', '.eot': 'empty', '.ttf': 'empty' },
  define: { 'process.env.NODE_ENV': '"production"' },
  plugins: [withoutFonts],
});
for (const name of ['index.html', 'manifest.json']) await copyFile(`src/${name}`, `dist/${name}`);
const licences = await Promise.all(modulesIn(metafile).map(licenceOf));
await writeFile('dist/LICENSES.txt', `The page contains these modules.\n\n${licences.join('\n---\n\n')}`);
