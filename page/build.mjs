// SPDX-License-Identifier: LGPL-3.0-or-later
// Bundles the page into dist/, the folder that Cockpit serves. The same sources give the same bytes.
import { copyFile, mkdir, readFile, rm } from 'node:fs/promises';
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

await rm('dist', { recursive: true, force: true });
await mkdir('dist');
await build({
  entryPoints: { index: 'src/index.tsx' },
  outdir: 'dist',
  bundle: true,
  minify: true,
  target: 'es2021',
  legalComments: 'linked',
  loader: { '.svg': 'dataurl', '.jpg': 'dataurl', '.png': 'dataurl', '.woff2': 'empty', '.woff': 'empty', '.eot': 'empty', '.ttf': 'empty' },
  define: { 'process.env.NODE_ENV': '"production"' },
  plugins: [withoutFonts],
});
for (const name of ['index.html', 'manifest.json']) await copyFile(`src/${name}`, `dist/${name}`);
