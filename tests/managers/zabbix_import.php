<?php
// What Zabbix's frontend does with a file that it imports, before it asks its database:
// read, validate by its schema, convert; then each key and each expression by its parsers.
// usage: zabbix_import.php FRONTEND_DIRECTORY FILE
[, $frontend, $file] = $argv;
chdir($frontend);
set_include_path($frontend);
require 'include/classes/core/APP.php';
class only_reads extends APP {
    public function begin(): void {
        $this->init();
    }
}
error_reporting(E_ALL & ~E_DEPRECATED);
set_error_handler(fn ($level, $what, $where, $line) => (error_reporting() & $level) ?
    throw new ErrorException("$what in $where, line $line") : false);
(new only_reads())->begin();

$data = CImportReaderFactory::getReader(CImportReaderFactory::YAML)->read(file_get_contents($file));
$factory = new CImportValidatorFactory(CImportReaderFactory::YAML);
$data = (new CXmlValidator($factory, CImportReaderFactory::YAML))->setStrict(true)->validate($data, '/');
if ($data['zabbix_export']['version'] !== ZABBIX_EXPORT_VERSION) {
    throw new Exception('the template is for '.$data['zabbix_export']['version'].', the frontend exports '.ZABBIX_EXPORT_VERSION);
}
$schema = $factory->getObject(ZABBIX_EXPORT_VERSION)->getSchema();
$data = (new CConstantImportConverter($schema))->convert($data);
$data = (new CDefaultImportConverter($schema))->convert($data);
$data = (new CImportDataNormalizer($schema))->normalize($data);

$keys = $expressions = 0;
$walk = function (array $node) use (&$walk, &$keys, &$expressions): void {
    foreach ($node as $name => $value) {
        if (is_array($value)) {
            $walk($value);
        } elseif ($name === 'key') {
            $keys++;
            $parser = new CItemKey();
            if ($parser->parse($value) !== CParser::PARSE_SUCCESS) {
                throw new Exception("the key $value: ".$parser->getError());
            }
        } elseif ($name === 'expression') {
            $expressions++;
            $parser = new CExpressionParser(['usermacros' => true, 'lldmacros' => true]);
            if ($parser->parse($value) !== CParser::PARSE_SUCCESS) {
                throw new Exception("the expression $value: ".$parser->getError());
            }
        }
    }
};
$walk($data);
if ($keys < 10 || $expressions < 5) {
    throw new Exception("only $keys keys and $expressions expressions were found");
}
echo "Zabbix ".ZABBIX_VERSION.": imported as far as its database, $keys keys and $expressions expressions\n";
