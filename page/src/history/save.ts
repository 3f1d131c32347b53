// SPDX-License-Identifier: LGPL-3.0-or-later
// Hands a text to the browser as a file.
export function save(name: string, text: string): void {
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([text], { type: 'text/csv' }));
  link.download = name;
  link.click();
  URL.revokeObjectURL(link.href);
}
