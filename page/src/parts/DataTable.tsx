// SPDX-License-Identifier: LGPL-3.0-or-later
// A table with a name, which readers of the screen announce.
import type { ReactElement, ReactNode } from 'react';
import '@patternfly/react-styles/css/components/Table/table.css';

interface Props {
  label: string;
  columns: string[];
  rows: { key: string; cells: ReactNode[] }[];
}

export function DataTable({ label, columns, rows }: Props): ReactElement {
  return (
    <table className="pf-v6-c-table pf-m-compact pf-m-grid-md" aria-label={label}>
      <thead className="pf-v6-c-table__thead">
        <tr className="pf-v6-c-table__tr">
          {columns.map((column) => (
            <th key={column} scope="col" className="pf-v6-c-table__th">
              {column}
            </th>
          ))}
        </tr>
      </thead>
      <tbody className="pf-v6-c-table__tbody">
        {rows.map(({ key, cells }) => (
          <tr key={key} className="pf-v6-c-table__tr">
            {cells.map((cell, index) => (
              <td key={columns[index]} data-label={columns[index]} className="pf-v6-c-table__td">
                {cell}
              </td>
            ))}
          </tr>
        ))}
      </tbody>
    </table>
  );
}
