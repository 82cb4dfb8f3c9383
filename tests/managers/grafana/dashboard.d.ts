// What Grafana's types say a dashboard is, as its JSON has it: panels of the kinds that we
// use with the options of their kind, queries as Prometheus' data source takes them.
import type { Dashboard, FieldConfig, Panel } from '@grafana/schema';
import type { Options as Stat } from '@grafana/schema/dist/esm/raw/composable/stat/panelcfg/x/StatPanelCfg_types.gen';
import type { FieldConfig as TableField, Options as Table } from '@grafana/schema/dist/esm/raw/composable/table/panelcfg/x/TablePanelCfg_types.gen';
import type { FieldConfig as TimeSeriesField, Options as TimeSeries } from '@grafana/schema/dist/esm/raw/composable/timeseries/panelcfg/x/TimeSeriesPanelCfg_types.gen';
import type { PrometheusDataQuery } from '@grafana/schema/dist/esm/raw/composable/prometheus/dataquery/x/PrometheusDataQuery_types.gen';

// JSON has an enumeration's values, and no name for them.
type Plain<T> = T extends string ? `${T}` : T extends object ? { [Key in keyof T]: Plain<T[Key]> } : T;

// A field is not known by its name alone: the type of `custom` and of `options` lets in anything.
interface Of<Type extends string, Options, Custom> extends Omit<Panel, 'type' | 'options' | 'targets' | 'fieldConfig'> {
    id: number;
    type: Type;
    title: string;
    gridPos: NonNullable<Panel['gridPos']>;
    options: Options;
    targets: PrometheusDataQuery[];
    fieldConfig: {
        defaults: Omit<FieldConfig, 'custom'> & { custom?: Custom };
        overrides: NonNullable<Panel['fieldConfig']>['overrides'];
    };
}
type OurPanel = Of<'stat', Stat, never> | Of<'timeseries', TimeSeries, TimeSeriesField> | Of<'table', Table, TableField>;

export type OurDashboard = Plain<Omit<Dashboard, 'panels'> & { title: string; uid: string; panels: OurPanel[] }>;
