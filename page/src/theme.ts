// SPDX-License-Identifier: LGPL-3.0-or-later
// Dark or light, as the console around the page is.
const kStyle = 'shell:style';

function isDark(): boolean {
  const style = localStorage.getItem(kStyle) ?? 'auto';
  if (style !== 'auto') return style === 'dark';
  return matchMedia('(prefers-color-scheme: dark)').matches;
}

function apply(): void {
  document.documentElement.classList.toggle('pf-v6-theme-dark', isDark());
}

export function followTheme(): void {
  apply();
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', apply);
  addEventListener('cockpit-style', apply);
  addEventListener('storage', (event) => {
    if (event.key === kStyle) apply();
  });
}
